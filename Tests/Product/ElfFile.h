// A shared library as a file: what its dynamic section and its dynamic symbols say.
#pragma once

#include <elf.h>

#include <filesystem>
#include <string>
#include <vector>

class ElfFile {
  public:
    // Throws std::runtime_error when `path` is no 64-bit ELF file.
    explicit ElfFile(const std::filesystem::path& path);

    // The names that the library defines for others, sorted.
    std::vector<std::string> DefinedNames() const;

    // The names among them that the loader makes unique in the whole process, sorted.
    std::vector<std::string> UniqueNames() const;

    // The names of the libraries that the loader opens with this one, in order.
    std::vector<std::string> NeededLibraries() const;

    // All values of the dynamic section's entries with `tag` (DT_FLAGS).
    std::vector<Elf64_Xword> DynamicValues(Elf64_Sxword tag) const;

  private:
    template <typename Entry>
    std::vector<Entry> EntriesOf(Elf64_Word sectionType) const;
    std::vector<Elf64_Sym> DefinedSymbols() const;
    std::string NameAt(std::size_t offset) const;

    std::string contents;
    std::vector<Elf64_Shdr> sections;
    std::string names;  // of dynamic symbols and entries, each NUL-terminated
};
