#include "Tests/Product/ElfFile.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "Tests/Support/Files.h"

namespace {

// `count` values of `Entry` that lie at `offset`; throws std::out_of_range when they do not fit.
template <typename Entry>
std::vector<Entry> Read(const std::string& contents, std::size_t offset, std::size_t count) {
    const std::string bytes = contents.substr(offset, count * sizeof(Entry));
    if (bytes.size() != count * sizeof(Entry)) throw std::out_of_range("ELF file is cut off");
    std::vector<Entry> entries(count);
    std::memcpy(entries.data(), bytes.data(), bytes.size());
    return entries;
}

}  // namespace

ElfFile::ElfFile(const std::filesystem::path& path) : contents(ContentsOf(path)) {
    const Elf64_Ehdr header = Read<Elf64_Ehdr>(contents, 0, 1).front();
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64) {
        throw std::runtime_error(path.string() + " is no 64-bit ELF file");
    }
    sections = Read<Elf64_Shdr>(contents, header.e_shoff, header.e_shnum);
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_DYNSYM) continue;
        const Elf64_Shdr& strings = sections.at(section.sh_link);
        names = contents.substr(strings.sh_offset, strings.sh_size);
    }
}

template <typename Entry>
std::vector<Entry> ElfFile::EntriesOf(Elf64_Word sectionType) const {
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != sectionType) continue;
        return Read<Entry>(contents, section.sh_offset, section.sh_size / sizeof(Entry));
    }
    throw std::runtime_error("ELF file lacks a section");
}

std::string ElfFile::NameAt(std::size_t offset) const {
    return names.substr(offset, names.find('\0', offset) - offset);
}

std::vector<Elf64_Sym> ElfFile::DefinedSymbols() const {
    std::vector<Elf64_Sym> symbols = EntriesOf<Elf64_Sym>(SHT_DYNSYM);
    std::erase_if(symbols, [](const Elf64_Sym& symbol) { return symbol.st_shndx == SHN_UNDEF; });
    return symbols;
}

std::vector<std::string> ElfFile::DefinedNames() const {
    std::vector<std::string> defined;
    for (const Elf64_Sym& symbol : DefinedSymbols()) defined.push_back(NameAt(symbol.st_name));
    std::sort(defined.begin(), defined.end());
    return defined;
}

std::vector<std::string> ElfFile::UniqueNames() const {
    std::vector<std::string> unique;
    for (const Elf64_Sym& symbol : DefinedSymbols()) {
        if (ELF64_ST_BIND(symbol.st_info) == STB_GNU_UNIQUE) {
            unique.push_back(NameAt(symbol.st_name));
        }
    }
    std::sort(unique.begin(), unique.end());
    return unique;
}

std::vector<std::string> ElfFile::NeededLibraries() const {
    std::vector<std::string> needed;
    for (const Elf64_Xword offset : DynamicValues(DT_NEEDED)) needed.push_back(NameAt(offset));
    return needed;
}

std::vector<Elf64_Xword> ElfFile::DynamicValues(Elf64_Sxword tag) const {
    std::vector<Elf64_Xword> values;
    for (const Elf64_Dyn& entry : EntriesOf<Elf64_Dyn>(SHT_DYNAMIC)) {
        if (entry.d_tag == tag) values.push_back(entry.d_un.d_val);
    }
    return values;
}
