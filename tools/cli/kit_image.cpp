#include "kit_image.h"

#include <elf.h>

#include <cstring>

#include "kit/KitLibrary.h"
#include "tarnkit/tarn_kit.h"

namespace tarn::diagnose {

namespace {

// Reads a record of the file at offset, if the whole of it is there.
template <typename T>
bool ReadRecord(const std::string& data, std::uint64_t offset, T& out) {
  if (offset > data.size() || data.size() - offset < sizeof(T)) return false;
  std::memcpy(&out, data.data() + offset, sizeof(T));
  return true;
}

// The file range of a table of count records of entrySize bytes, if it lies in the file.
bool TableFits(const std::string& data, std::uint64_t offset, std::uint64_t count, std::uint64_t entrySize) {
  if (entrySize == 0 || offset > data.size()) return count == 0;
  return count <= (data.size() - offset) / entrySize;
}

bool Exported(const Elf64_Sym& symbol) {
  const unsigned bind = ELF64_ST_BIND(symbol.st_info);
  const unsigned type = ELF64_ST_TYPE(symbol.st_info);
  const unsigned visibility = ELF64_ST_VISIBILITY(symbol.st_other);
  return symbol.st_shndx != SHN_UNDEF &&
         (bind == STB_GLOBAL || bind == STB_WEAK || bind == STB_GNU_UNIQUE) &&
         (visibility == STV_DEFAULT || visibility == STV_PROTECTED) &&
         (type == STT_FUNC || type == STT_OBJECT || type == STT_GNU_IFUNC || type == STT_NOTYPE);
}

}  // namespace

bool KitImage::Parse(std::string bytes, std::string& error) {
  data_ = std::move(bytes);
  segments_.clear();
  exports_.clear();
  relocated_.clear();

  Elf64_Ehdr header{};
  if (!ReadRecord(data_, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    error = "not an ELF file";
    return false;
  }
  if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
      header.e_machine != EM_X86_64) {
    error = "not a 64-bit x86-64 ELF file";
    return false;
  }
  if (header.e_type != ET_DYN) {
    error = "not a shared library";
    return false;
  }
  if (header.e_phentsize != sizeof(Elf64_Phdr) ||
      !TableFits(data_, header.e_phoff, header.e_phnum, sizeof(Elf64_Phdr)) ||
      header.e_shentsize != sizeof(Elf64_Shdr) ||
      !TableFits(data_, header.e_shoff, header.e_shnum, sizeof(Elf64_Shdr)) || header.e_shnum == 0) {
    error = "damaged ELF headers";
    return false;
  }

  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr program{};
    ReadRecord(data_, header.e_phoff + i * sizeof(Elf64_Phdr), program);
    if (program.p_type == PT_LOAD) {
      segments_.push_back({program.p_vaddr, program.p_offset, program.p_filesz, program.p_memsz});
    }
  }

  std::vector<Elf64_Shdr> sections(header.e_shnum);
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    ReadRecord(data_, header.e_shoff + i * sizeof(Elf64_Shdr), sections[i]);
  }
  std::vector<Elf64_Sym> symbols;
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_DYNSYM || section.sh_link >= sections.size()) continue;
    const Elf64_Shdr& names = sections[section.sh_link];
    const std::uint64_t count = section.sh_size / sizeof(Elf64_Sym);
    if (!TableFits(data_, section.sh_offset, count, sizeof(Elf64_Sym)) ||
        !TableFits(data_, names.sh_offset, names.sh_size, 1)) {
      break;
    }
    symbols.resize(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      Elf64_Sym& symbol = symbols[i];
      ReadRecord(data_, section.sh_offset + i * sizeof(Elf64_Sym), symbol);
      if (!Exported(symbol) || symbol.st_name >= names.sh_size) continue;
      const char* name = data_.data() + names.sh_offset + symbol.st_name;
      const std::size_t length = ::strnlen(name, names.sh_size - symbol.st_name);
      if (length == names.sh_size - symbol.st_name) continue;  // no terminator inside the table
      exports_.emplace(std::string(name, length), symbol.st_value);
    }
    break;
  }
  if (symbols.empty()) {
    error = "no dynamic symbol table";
    return false;
  }

  // The pointers of a position-independent library are written by the loader.
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_RELA) continue;
    const std::uint64_t count = section.sh_size / sizeof(Elf64_Rela);
    if (!TableFits(data_, section.sh_offset, count, sizeof(Elf64_Rela))) continue;
    for (std::uint64_t i = 0; i < count; ++i) {
      Elf64_Rela rela{};
      ReadRecord(data_, section.sh_offset + i * sizeof(Elf64_Rela), rela);
      const std::uint64_t type = ELF64_R_TYPE(rela.r_info);
      const std::uint64_t index = ELF64_R_SYM(rela.r_info);
      if (type == R_X86_64_RELATIVE) {
        relocated_[rela.r_offset] = static_cast<std::uint64_t>(rela.r_addend);
      } else if ((type == R_X86_64_64 || type == R_X86_64_GLOB_DAT) && index < symbols.size() &&
                 symbols[index].st_shndx != SHN_UNDEF) {
        relocated_[rela.r_offset] = symbols[index].st_value + static_cast<std::uint64_t>(rela.r_addend);
      }
    }
  }
  return true;
}

bool KitImage::Exports(std::string_view name) const { return exports_.find(name) != exports_.end(); }

bool KitImage::ReadAt(std::uint64_t address, void* out, std::size_t size) const {
  for (const Segment& segment : segments_) {
    if (address < segment.address || address - segment.address > segment.memorySize ||
        segment.memorySize - (address - segment.address) < size) {
      continue;
    }
    auto* bytes = static_cast<unsigned char*>(out);
    std::memset(bytes, 0, size);
    const std::uint64_t at = address - segment.address;
    if (at < segment.fileSize) {
      const std::uint64_t inFile = std::min<std::uint64_t>(size, segment.fileSize - at);
      const std::uint64_t offset = segment.fileOffset + at;
      if (offset > data_.size() || data_.size() - offset < inFile) return false;
      std::memcpy(bytes, data_.data() + offset, inFile);
    }
    return true;
  }
  return false;
}

bool KitImage::PointerAt(std::uint64_t address, std::uint64_t& value) const {
  const auto relocated = relocated_.find(address);
  if (relocated != relocated_.end()) {
    value = relocated->second;
    return true;
  }
  // Packed relative relocations keep the value in place.
  return ReadAt(address, &value, sizeof(value));
}

KitImage::Lookup KitImage::KitString(std::uint32_t id, std::u16string& text) const {
  const auto table = exports_.find(kTarnKitStringsSymbol);
  if (table == exports_.end()) return Lookup::kNoTable;
  // The layout of TarnKitString on x86-64: the id, padding, the text pointer.
  constexpr std::uint64_t kEntrySize = 16;
  constexpr std::uint64_t kTextOffset = 8;
  for (std::uint64_t i = 0; i < tarn::kit::kMaxKitStrings; ++i) {
    const std::uint64_t entry = table->second + i * kEntrySize;
    std::uint32_t entryId = 0;
    std::uint64_t pointer = 0;
    if (!ReadAt(entry, &entryId, sizeof(entryId)) || !PointerAt(entry + kTextOffset, pointer)) {
      return Lookup::kBroken;
    }
    if (entryId == 0 && pointer == 0) break;
    if (entryId != id || pointer == 0) continue;
    text.clear();
    for (std::uint64_t at = pointer; text.size() + 1 < tarn::kit::kVerifyStringChars; at += 2) {
      char16_t c = 0;
      if (!ReadAt(at, &c, sizeof(c))) return Lookup::kBroken;
      if (c == 0) break;
      text.push_back(c);
    }
    return Lookup::kFound;
  }
  return Lookup::kNoEntry;
}

}  // namespace tarn::diagnose
