#pragma once
// A kit library read as a file and never loaded: a library that hasn't passed
// its checks must not run code in the process that checks it. What the
// container finds with dlsym after the load is read here from the ELF file:
// the dynamic symbols the library defines, and its string table.
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::diagnose {

class KitImage {
 public:
  // Takes the file's bytes. False, with the reason, when they aren't an
  // x86-64 ELF shared object whose dynamic symbols can be read.
  bool Parse(std::string bytes, std::string& error);

  // The library defines and exports a function or object of that name (a
  // dependency's symbol of the same name doesn't count, as for the container).
  bool Exports(std::string_view name) const;

  enum class Lookup {
    kFound,
    kNoTable,  // no TarnKitStrings export
    kNoEntry,  // the table has no such id (or no terminator where the container looks)
    kBroken,   // an entry or its text lies outside the file
  };
  // Entry id of the library's TarnKitStrings, as many characters as the
  // container reads of it.
  Lookup KitString(std::uint32_t id, std::u16string& text) const;

 private:
  struct Segment {
    std::uint64_t address, fileOffset, fileSize, memorySize;
  };
  // Copies size bytes at a virtual address; what lies past a segment's file
  // bytes reads as zero, as it is in memory. False outside every segment.
  bool ReadAt(std::uint64_t address, void* out, std::size_t size) const;
  // The pointer stored at address once the loader has relocated it.
  bool PointerAt(std::uint64_t address, std::uint64_t& value) const;

  std::string data_;
  std::vector<Segment> segments_;
  std::map<std::string, std::uint64_t, std::less<>> exports_;  // name -> address
  std::map<std::uint64_t, std::uint64_t> relocated_;           // address -> pointer value
};

}  // namespace tarn::diagnose
