#pragma once
// The contract between TarnCoreContainer and a kit library.
//
// A kit is an ELF shared object in kits/<package>/ beside its kitManifest.json,
// built with the same g++ and libstdc++ as the container (std::function crosses
// the border by value). Every export is undecorated:
//
//   TARN_KIT_API void Init(TarnKitCallback broadcast);      // entry, named by the manifest
//   TARN_KIT_API void SomeApi(const char* header, const char* body,
//                             TarnKitCallback callback);    // api and event functions
//
// The entry function runs once, right after the load, on the loading thread.
// It gets the broadcast callback: call it from any thread with a JSON text to
// send to every connected client.
//
// An api function runs on the request's thread, possibly on several threads at
// once. header and body are zero-ended JSON texts that live only until the
// function returns; header holds "syncMessageId". Answer exactly once through
// the callback, during the call or later from any thread:
//   - a text without "header" becomes the body of the response;
//   - a text with "header" goes out as it stands;
//   - an answer given after the function has returned must hold
//     {"header":{"syncMessageId":"<the value that came in>"}} so the container
//     can find the request again.
// The container copies the text before it does anything else, so the buffer
// may be reused once the callback returns. A callback may be copied and kept.
//
// Event functions ("OnWinSessionChanged", "OnWinNetworkChanged") have the same
// shape; their texts are plain decimal numbers and their answer is ignored.
//
// TarnKitStrings is the library's string table; entry kTarnKitVerifyStringId
// holds the hexadecimal SHA-256 of the kitManifest.json shipped with the
// library. tarn_add_kit (TarnKit.cmake) generates it.
//
// What the container exports for kits, resolved from the program when the kit
// is loaded: Scope and TarnGetScopeByAppId (a client's scopes, scope.h) and
// ProductAdapt::ProductFeature (the product feature table, product_feature.h).
#include <cstdint>
#include <functional>

#include "tarnkit/product_feature.h"
#include "tarnkit/scope.h"

#define TARN_KIT_EXPORT __attribute__((visibility("default")))
#define TARN_KIT_API extern "C" TARN_KIT_EXPORT

// The callback that crosses the border, in both directions.
using TarnKitCallback = std::function<void(char*)>;
// The entry function.
using TarnKitEntryFunction = void (*)(TarnKitCallback broadcast);
// Api and event functions.
using TarnKitApiFunction = void (*)(const char* header, const char* body, TarnKitCallback callback);

extern "C" {
// One string of the table; the table ends with {0, nullptr}.
struct TarnKitString {
  std::uint32_t id;
  const char16_t* text;
};
}

// Id of the verification string (the manifest digest).
inline constexpr std::uint32_t kTarnKitVerifyStringId = 199;
// Exported name of the table.
inline constexpr const char* kTarnKitStringsSymbol = "TarnKitStrings";

extern "C" TARN_KIT_EXPORT const TarnKitString TarnKitStrings[];
