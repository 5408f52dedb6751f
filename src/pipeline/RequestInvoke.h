#pragma once
// Carries one request, already in the callback table, through its gates: is
// the container up, is the text well formed, is the caller who it says it is,
// and does the kit manager take it. A gate that refuses answers the caller
// through ServerResCallBack::ExcuteError. Runs on the IPC library's thread.
#include "pipeline/Records.h"

class ServerResCallBack;

class RequestInvoke {
 public:
  // The whole run. An exception (a non-string header value) is logged and
  // swallowed: the caller gets no answer and the callback stays in the table.
  static void Excute(ServerResCallBack* callback);

  // Waits up to 17 x 50 ms for the kit manager; refuses with 907135011.
  static bool IsInitComplite(ServerResCallBack* callback, ResponseStatus& status);
  // Whitelist, then executable signature and certificate fingerprint.
  static bool VerifyProcess(ServerResCallBack* callback, RequestHeader& header,
                            ResponseStatus& status);
  static bool VerifySignatured(ServerResCallBack* callback, ResponseStatus& status);
  static bool CheckCertFingerprint(ServerResCallBack* callback, RequestHeader& header,
                                   ResponseStatus& status);
};
