#include "platform/system/call_stack.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/system/symbol_name.h"

namespace pnx {

namespace {

constexpr int kMaxFrames = 128;
// Our library's image as stack lines show it: without "lib" and ".so.3", which the caller
// record's tokeniser would split into pieces of their own.
constexpr const char* kLibraryImageName = "QuorvexMobilePushNotification";
constexpr const char* kUnknown = "???";

// ---------------------------------------------------------------------------------------
// ELF symbol tables, for the functions dladdr can't name: static functions, and anything
// in an executable that does not export its symbols. Read from the image's file, mapped
// once per process and kept.

class SymbolTable {
 public:
  // The table of the image at path; nullptr when the file can't be read or has none.
  static const SymbolTable* forImage(const std::string& path) {
    static std::mutex* mutex = new std::mutex;
    static auto* tables = new std::map<std::string, std::unique_ptr<SymbolTable>>;
    std::lock_guard<std::mutex> lock(*mutex);
    auto found = tables->find(path);
    if (found == tables->end()) found = tables->emplace(path, load(path)).first;
    return found->second.get();
  }

  // The function holding the file address: its name and its start address.
  bool lookup(ElfW(Addr) address, const char** name, ElfW(Addr) * start) const {
    auto after = std::upper_bound(entries_.begin(), entries_.end(), address,
                                  [](ElfW(Addr) a, const Entry& e) { return a < e.start; });
    if (after == entries_.begin()) return false;
    const Entry& entry = *(after - 1);
    if (address >= entry.start + std::max<ElfW(Xword)>(entry.size, 1)) return false;
    *name = entry.name;
    *start = entry.start;
    return true;
  }

 private:
  struct Entry {
    ElfW(Addr) start;
    ElfW(Xword) size;
    const char* name;
  };

  static bool inFile(std::size_t fileSize, std::uint64_t offset, std::uint64_t length) {
    return offset <= fileSize && length <= fileSize - offset;
  }

  // Every check guards against a truncated or malformed file: such a file has no table.
  static std::unique_ptr<SymbolTable> load(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::size_t>(status.st_size) < sizeof(ElfW(Ehdr))) {
      close(fd);
      return nullptr;
    }
    const std::size_t size = static_cast<std::size_t>(status.st_size);
    void* mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED) return nullptr;
    auto table = std::unique_ptr<SymbolTable>(new SymbolTable);
    table->read(static_cast<const unsigned char*>(mapping), size);
    if (table->entries_.empty()) {
      munmap(mapping, size);
      return nullptr;
    }
    return table;  // the mapping stays: the names point into it
  }

  void read(const unsigned char* bytes, std::size_t size) {
    ElfW(Ehdr) header;
    std::memcpy(&header, bytes, sizeof header);
    const unsigned char nativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != nativeClass || header.e_shentsize != sizeof(ElfW(Shdr)) ||
        !inFile(size, header.e_shoff, std::uint64_t{header.e_shnum} * sizeof(ElfW(Shdr)))) {
      return;
    }
    auto section = [&](std::size_t index) {
      ElfW(Shdr) s;
      std::memcpy(&s, bytes + header.e_shoff + index * sizeof(ElfW(Shdr)), sizeof s);
      return s;
    };
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
      ElfW(Shdr) symbols = section(i);
      if (symbols.sh_type != SHT_SYMTAB || symbols.sh_entsize != sizeof(ElfW(Sym)) ||
          symbols.sh_link >= header.e_shnum || !inFile(size, symbols.sh_offset, symbols.sh_size)) {
        continue;
      }
      ElfW(Shdr) names = section(symbols.sh_link);
      if (!inFile(size, names.sh_offset, names.sh_size)) continue;
      const char* strings = reinterpret_cast<const char*>(bytes + names.sh_offset);
      for (std::size_t k = 0; k < symbols.sh_size / sizeof(ElfW(Sym)); ++k) {
        ElfW(Sym) symbol;
        std::memcpy(&symbol, bytes + symbols.sh_offset + k * sizeof(ElfW(Sym)), sizeof symbol);
        const int type = symbol.st_info & 0xf;  // ELF{32,64}_ST_TYPE
        if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_shndx == SHN_UNDEF ||
            symbol.st_value == 0 || symbol.st_name >= names.sh_size ||
            !std::memchr(strings + symbol.st_name, '\0', names.sh_size - symbol.st_name)) {
          continue;
        }
        entries_.push_back({symbol.st_value, symbol.st_size, strings + symbol.st_name});
      }
    }
    std::sort(entries_.begin(), entries_.end(),
              [](const Entry& a, const Entry& b) { return a.start < b.start; });
  }

  std::vector<Entry> entries_;
};

// ---------------------------------------------------------------------------------------
// Rendering a demangled name in the platform's shape:
//   "pnx::DispatchQueue::async(std::function<void ()>)"  ->  "-[pnx::DispatchQueue async]"
//   "NSError_PNX::appKeyMissing()"                       ->  "-[NSError(PNX) appKeyMissing]"
//   "(anonymous namespace)::helper(int)"                 ->  "helper"

bool isIdentifierChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
}

bool isOperatorChar(char c) {
  return std::strchr("+-*/%^&|~!=<>,", c) != nullptr && c != '\0';
}

char closerOf(char c) {
  switch (c) {
    case '(':
      return ')';
    case '<':
      return '>';
    case '[':
      return ']';
    default:
      return '}';
  }
}

// The index just past the balanced group that opens at text[i].
std::size_t skipGroup(std::string_view text, std::size_t i) {
  std::string open;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '(' || c == '<' || c == '[' || c == '{') {
      open.push_back(closerOf(c));
    } else if (!open.empty() && c == open.back()) {
      open.pop_back();
      if (open.empty()) return i + 1;
    }
  }
  return text.size();
}

bool startsWithWord(std::string_view text, std::size_t i, std::string_view word) {
  if (text.substr(i, word.size()) != word) return false;
  if (i > 0 && isIdentifierChar(text[i - 1])) return false;
  const std::size_t end = i + word.size();
  return end == text.size() || !isIdentifierChar(text[end]);
}

// Drops parameter lists, template arguments, ABI tags, clone suffixes and the anonymous
// namespace; keeps operator names and lambda names ("{lambda#1}").
std::string stripGroups(std::string_view text) {
  std::string out;
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (startsWithWord(text, i, "operator")) {
      out += "operator";
      i += 8;
      if (text.substr(i, 2) == "()" || text.substr(i, 2) == "[]") {
        out += text.substr(i, 2);
        i += 2;
      } else if (i < text.size() && isOperatorChar(text[i])) {
        while (i < text.size() && isOperatorChar(text[i])) out += text[i++];
      } else if (i < text.size() && text[i] == ' ') {  // operator new, operator bool
        out += '_';
        ++i;
        while (i < text.size() && isIdentifierChar(text[i])) out += text[i++];
      }
      continue;
    }
    if (c == '(' || c == '<' || c == '[') {
      i = skipGroup(text, i);
      continue;
    }
    if (c == '{') {
      const std::size_t end = skipGroup(text, i);
      std::string inner = stripGroups(text.substr(i + 1, end >= i + 2 ? end - i - 2 : 0));
      std::erase(inner, ' ');
      out += "{" + inner + "}";
      i = end;
      continue;
    }
    out += c;
    ++i;
  }
  return out;
}

// The function's qualified name out of what is left: return types come before it,
// qualifiers such as const after it.
std::string qualifiedName(const std::string& stripped) {
  static const std::string_view kQualifiers[] = {"const", "volatile", "&", "&&", "noexcept"};
  std::string name;
  std::size_t i = 0;
  while (i < stripped.size()) {
    const std::size_t space = std::min(stripped.find(' ', i), stripped.size());
    std::string_view word(stripped.data() + i, space - i);
    if (!word.empty() &&
        std::find(std::begin(kQualifiers), std::end(kQualifiers), word) == std::end(kQualifiers)) {
      name = word;
    }
    i = space + 1;
  }
  return name;
}

std::vector<std::string> splitQualified(const std::string& name) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find("::", start);
    if (end == std::string::npos) end = name.size();
    if (end > start) parts.push_back(name.substr(start, end - start));
    start = end + 2;
  }
  return parts;
}

bool looksLikeClass(const std::string& part) {
  return !part.empty() && (std::isupper(static_cast<unsigned char>(part[0])) || part[0] == '{');
}

// A class named Base_Category stands for the platform's category Base(Category).
std::string categoryForm(const std::string& name) {
  if (std::count(name.begin(), name.end(), '_') != 1) return name;
  const std::size_t underscore = name.find('_');
  if (underscore == 0 || underscore + 1 == name.size()) return name;
  return name.substr(0, underscore) + "(" + name.substr(underscore + 1) + ")";
}

std::string demangled(const char* symbol) {
  if (std::strncmp(symbol, "_Z", 2) == 0) {
    int status = 0;
    char* text = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
    if (status == 0 && text) {
      std::string result(text);
      std::free(text);
      return result;
    }
    std::free(text);
  }
  // A C name, perhaps with a compiler's suffix ("helper.part.0", "main.cold").
  std::string name(symbol);
  return name.substr(0, name.find('.'));
}

}  // namespace

std::string renderSymbol(const std::string& demangledName) {
  std::vector<std::string> parts = splitQualified(qualifiedName(stripGroups(demangledName)));
  if (parts.empty()) return kUnknown;
  if (parts.size() >= 2 && looksLikeClass(parts[parts.size() - 2])) {
    std::string className;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
      if (i > 0) className += "::";
      className += i + 2 == parts.size() ? categoryForm(parts[i]) : parts[i];
    }
    return "-[" + className + " " + parts.back() + "]";
  }
  std::string name;
  for (const std::string& part : parts) name += (name.empty() ? "" : "::") + part;
  return name;
}

namespace {

// ---------------------------------------------------------------------------------------
// Images

const link_map* libraryMap() {
  static const link_map* map = [] {
    Dl_info info{};
    void* extra = nullptr;
    if (!dladdr1(reinterpret_cast<void*>(&callStackSymbols), &info, &extra, RTLD_DL_LINKMAP)) {
      return static_cast<const link_map*>(nullptr);
    }
    return static_cast<const link_map*>(extra);
  }();
  return map;
}

const std::string& executablePath() {
  static const std::string* path = [] {
    char buffer[4096];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return new std::string(length > 0 ? std::string(buffer, length) : "");
  }();
  return *path;
}

bool isExecutable(const link_map* map) {
  return !map->l_name || map->l_name[0] == '\0';
}

std::string filePathOf(const link_map* map) {
  return isExecutable(map) ? executablePath() : std::string(map->l_name);
}

std::string imageNameOf(const link_map* map) {
  if (map == libraryMap() && !isExecutable(map)) return kLibraryImageName;
  std::string path = filePathOf(map);
  if (path.empty()) return kUnknown;
  return path.substr(path.rfind('/') + 1);
}

struct Frame {
  std::string image = kUnknown;
  std::string symbol = kUnknown;
  std::uintptr_t offset = 0;
};

// address is a return address: the call itself lies just before it.
Frame symbolize(std::uintptr_t address) {
  Frame frame;
  const std::uintptr_t inside = address - 1;
  Dl_info info{};
  void* extra = nullptr;
  if (!dladdr1(reinterpret_cast<void*>(inside), &info, &extra, RTLD_DL_LINKMAP) || !extra) {
    return frame;
  }
  const auto* map = static_cast<const link_map*>(extra);
  frame.image = imageNameOf(map);
  const char* name = nullptr;
  std::uintptr_t start = 0;
  if (info.dli_sname && info.dli_saddr) {
    name = info.dli_sname;
    start = reinterpret_cast<std::uintptr_t>(info.dli_saddr);
  } else if (const SymbolTable* table = SymbolTable::forImage(filePathOf(map))) {
    ElfW(Addr) fileStart = 0;
    if (table->lookup(inside - map->l_addr, &name, &fileStart)) start = fileStart + map->l_addr;
  }
  if (name) {
    frame.symbol = renderSymbol(demangled(name));
    frame.offset = address - start;
  } else {
    frame.offset = address - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
  }
  return frame;
}

}  // namespace

// The caller's frame is found by its return address rather than by position: under a
// sanitizer, backtrace() itself is wrapped and adds a frame of its own.
[[gnu::noinline]] std::vector<std::string> callStackSymbols(int skipFrames) {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  void* const returnAddress = __builtin_return_address(0);
  int caller = 1;
  for (int i = 0; i < count; ++i) {
    if (frames[i] == returnAddress) {
      caller = i;
      break;
    }
  }
  std::vector<std::string> lines;
  const int first = caller + std::max(skipFrames, 0);
  for (int i = first; i < count; ++i) {
    const auto address = reinterpret_cast<std::uintptr_t>(frames[i]);
    if (address == 0) continue;
    Frame frame = symbolize(address);
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%-3d ", i - first);
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, " 0x%016" PRIxPTR " ", address);
    std::string line = prefix;
    line += frame.image;
    if (frame.image.size() < 35) line.append(35 - frame.image.size(), ' ');
    line += numbers;
    line += frame.symbol;
    line += " + " + std::to_string(frame.offset);
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace pnx
