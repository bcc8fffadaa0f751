#include "tvkctl/src/plugin/elf_file.h"

#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "common/process/unique_fd.h"
#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

struct elf_closer {
    void operator()(Elf* elf) const { elf_end(elf); }
};
using elf_handle = std::unique_ptr<Elf, elf_closer>;

float_abi float_abi_of(const GElf_Ehdr& header)
{
    if (header.e_machine != EM_ARM)
        return float_abi::not_applicable;
    if ((header.e_flags & EF_ARM_ABI_FLOAT_HARD) != 0)
        return float_abi::hard;
    return (header.e_flags & EF_ARM_ABI_FLOAT_SOFT) != 0 ? float_abi::soft : float_abi::unmarked;
}

/// One reading of one file: each step takes its part into the result.
class elf_reader {
public:
    explicit elf_reader(const std::string& path);

    elf_file read();

private:
    [[noreturn]] void fail(elf_error::reason why, const std::string& what) const;
    [[noreturn]] void fail_damaged(const std::string& what) const { fail(elf_error::reason::damaged, what); }

    void open_file();
    void begin();
    void take_identity();
    void read_segments();
    void check_section_table() const;
    void read_sections();
    void read_dynamic(Elf_Scn* section, const GElf_Shdr& header);
    void take_dynamic_entry(const GElf_Dyn& entry, std::size_t strings);
    void read_symbols(Elf_Scn* section, const GElf_Shdr& header);
    void read_version_needs(Elf_Scn* section, const GElf_Shdr& header);
    void read_versions_of(Elf_Data& data, int offset, const GElf_Verneed& need, std::size_t strings);
    void read_versions(Elf_Scn* section, const GElf_Shdr& header);
    void decide_kind();

    Elf_Data& data_of(Elf_Scn* section) const;
    std::string string_at(std::size_t strings, std::uint64_t offset) const;
    int next_offset(const Elf_Data& data, int offset, std::uint64_t step) const;
    void expect_inside(std::uint64_t offset, std::uint64_t size, const char* what) const;

    elf_file m_result{};
    unique_fd m_file;
    std::uint64_t m_size = 0;
    elf_handle m_elf;
    GElf_Ehdr m_header{};
    bool m_hasDynamicSegment = false;
    bool m_hasDynamicSection = false;
    bool m_isMarkedProgram = false;
};

elf_reader::elf_reader(const std::string& path)
{
    m_result.path = path;
}

void elf_reader::fail(elf_error::reason why, const std::string& what) const
{
    throw elf_error(why, m_result.path + ": " + what);
}

elf_file elf_reader::read()
{
    open_file();
    begin();
    take_identity();
    read_segments();
    check_section_table();
    read_sections();
    decide_kind();
    return std::move(m_result);
}

void elf_reader::open_file()
{
    // Without O_NONBLOCK a named pipe would wait for somebody to write into it.
    m_file = unique_fd(open(m_result.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!m_file)
        fail(elf_error::reason::unreadable, std::strerror(errno));
    struct stat about {};
    if (fstat(m_file.get(), &about) != 0)
        fail(elf_error::reason::unreadable, std::strerror(errno));
    if (!S_ISREG(about.st_mode))
        fail(elf_error::reason::unreadable, "not a regular file");
    m_size = static_cast<std::uint64_t>(about.st_size);
}

void elf_reader::begin()
{
    char magic[SELFMAG] = {};
    const ssize_t got = pread(m_file.get(), magic, sizeof magic, 0);
    if (got < 0)
        fail(elf_error::reason::unreadable, std::strerror(errno));
    if (got != SELFMAG || std::memcmp(magic, ELFMAG, SELFMAG) != 0)
        fail(elf_error::reason::not_elf, got == 0 ? "the file is empty" : "not an ELF file");
    elf_version(EV_CURRENT);
    m_elf.reset(elf_begin(m_file.get(), ELF_C_READ, nullptr));
    if (!m_elf || gelf_getehdr(m_elf.get(), &m_header) == nullptr)
        fail_damaged("starts like an ELF file, but its header is cut off or makes no sense");
}

void elf_reader::take_identity()
{
    m_result.identity = {gelf_getclass(m_elf.get()) == ELFCLASS32 ? 32 : 64,
                         m_header.e_ident[EI_DATA] == ELFDATA2MSB, m_header.e_machine,
                         float_abi_of(m_header)};
}

void elf_reader::expect_inside(std::uint64_t offset, std::uint64_t size, const char* what) const
{
    if (offset <= m_size && size <= m_size - offset)
        return;
    fail_damaged(std::string("cut off: ") + what + " reaches beyond its " + std::to_string(m_size) +
                 " bytes");
}

void elf_reader::read_segments()
{
    std::size_t count = 0;
    if (elf_getphdrnum(m_elf.get(), &count) != 0)
        fail_damaged("its program headers cannot be counted");
    expect_inside(m_header.e_phoff, count * m_header.e_phentsize, "the program header table");
    m_result.wants_executable_stack = true; // what the loader takes the absence of a word on it for
    for (int index = 0; index < static_cast<int>(count); ++index) {
        GElf_Phdr segment{};
        if (gelf_getphdr(m_elf.get(), index, &segment) == nullptr)
            fail_damaged("program header " + std::to_string(index) + " cannot be read");
        if (segment.p_type == PT_LOAD)
            expect_inside(segment.p_offset, segment.p_filesz, "a part that is to be loaded");
        if (segment.p_type == PT_DYNAMIC)
            m_hasDynamicSegment = true;
        if (segment.p_type == PT_GNU_STACK)
            m_result.wants_executable_stack = (segment.p_flags & PF_X) != 0;
    }
}

void elf_reader::check_section_table() const
{
    const auto size = std::uint64_t{m_header.e_shnum} * m_header.e_shentsize;
    expect_inside(m_header.e_shoff, size, "the section header table");
}

void elf_reader::read_sections()
{
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(m_elf.get(), section)) != nullptr;) {
        GElf_Shdr header{};
        if (gelf_getshdr(section, &header) == nullptr)
            fail_damaged("a section header cannot be read");
        if (header.sh_type == SHT_DYNAMIC)
            read_dynamic(section, header);
        else if (header.sh_type == SHT_DYNSYM)
            read_symbols(section, header);
        else if (header.sh_type == SHT_GNU_verneed)
            read_version_needs(section, header);
        else if (header.sh_type == SHT_GNU_verdef)
            read_versions(section, header);
    }
    // The loader does without section headers; what is said here comes from them.
    if (m_hasDynamicSegment && !m_hasDynamicSection)
        fail_damaged("its section headers were removed, so that nothing can be told without loading it");
}

Elf_Data& elf_reader::data_of(Elf_Scn* section) const
{
    Elf_Data* data = elf_getdata(section, nullptr);
    if (data == nullptr)
        fail_damaged(std::string("a section cannot be read: ") + elf_errmsg(-1));
    return *data;
}

std::string elf_reader::string_at(std::size_t strings, std::uint64_t offset) const
{
    if (offset > std::numeric_limits<std::uint32_t>::max())
        fail_damaged("a name lies outside the string table");
    const char* text = elf_strptr(m_elf.get(), strings, static_cast<std::uint32_t>(offset));
    if (text == nullptr)
        fail_damaged(std::string("a name cannot be read: ") + elf_errmsg(-1));
    return text;
}

void elf_reader::read_dynamic(Elf_Scn* section, const GElf_Shdr& header)
{
    m_hasDynamicSection = true;
    Elf_Data& data = data_of(section);
    GElf_Dyn entry{};
    for (int index = 0; gelf_getdyn(&data, index, &entry) != nullptr && entry.d_tag != DT_NULL; ++index)
        take_dynamic_entry(entry, header.sh_link);
}

void elf_reader::take_dynamic_entry(const GElf_Dyn& entry, std::size_t strings)
{
    switch (entry.d_tag) {
    case DT_NEEDED:
        m_result.needed.push_back(string_at(strings, static_cast<std::size_t>(entry.d_un.d_val)));
        break;
    case DT_RPATH:
    case DT_RUNPATH:
        m_result.search_path = split(string_at(strings, static_cast<std::size_t>(entry.d_un.d_val)), ':');
        break;
    case DT_TEXTREL:
        m_result.has_text_relocations = true;
        break;
    case DT_FLAGS:
        m_result.has_text_relocations |= (entry.d_un.d_val & DF_TEXTREL) != 0;
        break;
    case DT_FLAGS_1:
        m_isMarkedProgram = (entry.d_un.d_val & DF_1_PIE) != 0;
        break;
    default:
        break;
    }
}

void elf_reader::read_symbols(Elf_Scn* section, const GElf_Shdr& header)
{
    Elf_Data& data = data_of(section);
    GElf_Sym symbol{};
    for (int index = 1; gelf_getsym(&data, index, &symbol) != nullptr; ++index) { // entry 0 is no symbol
        const auto binding = GELF_ST_BIND(symbol.st_info);
        const auto visibility = GELF_ST_VISIBILITY(symbol.st_other);
        const auto type = GELF_ST_TYPE(symbol.st_info);
        elf_symbol found{};
        found.name = string_at(header.sh_link, symbol.st_name);
        found.is_defined = symbol.st_shndx != SHN_UNDEF;
        found.is_function = type == STT_FUNC || type == STT_GNU_IFUNC;
        found.is_weak = binding == STB_WEAK;
        found.is_exported = found.is_defined && binding != STB_LOCAL &&
                            (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
        if (!found.name.empty())
            m_result.symbols.push_back(std::move(found));
    }
}

/// Where the next entry of a chain stands. Chains only lead forwards, so that each comes to an end.
int elf_reader::next_offset(const Elf_Data& data, int offset, std::uint64_t step) const
{
    const auto limit = std::min<std::uint64_t>(data.d_size, std::numeric_limits<int>::max());
    const auto from = static_cast<std::uint64_t>(offset);
    if (step > limit - from)
        fail_damaged("its version table points outside itself");
    return static_cast<int>(from + step);
}

void elf_reader::read_version_needs(Elf_Scn* section, const GElf_Shdr& header)
{
    Elf_Data& data = data_of(section);
    GElf_Verneed need{};
    for (int offset = 0; gelf_getverneed(&data, offset, &need) != nullptr;) {
        read_versions_of(data, next_offset(data, offset, need.vn_aux), need, header.sh_link);
        if (need.vn_next == 0)
            return;
        offset = next_offset(data, offset, need.vn_next);
    }
}

void elf_reader::read_versions_of(Elf_Data& data, int offset, const GElf_Verneed& need, std::size_t strings)
{
    GElf_Vernaux version{};
    while (gelf_getvernaux(&data, offset, &version) != nullptr) {
        m_result.version_needs.push_back(
            {string_at(strings, need.vn_file), string_at(strings, version.vna_name)});
        if (version.vna_next == 0)
            return;
        offset = next_offset(data, offset, version.vna_next);
    }
}

void elf_reader::read_versions(Elf_Scn* section, const GElf_Shdr& header)
{
    Elf_Data& data = data_of(section);
    GElf_Verdef version{};
    for (int offset = 0; gelf_getverdef(&data, offset, &version) != nullptr;) {
        GElf_Verdaux name{}; // the first one; those behind it are the versions that this one continues
        if (gelf_getverdaux(&data, next_offset(data, offset, version.vd_aux), &name) != nullptr)
            m_result.versions.push_back(string_at(header.sh_link, name.vda_name));
        if (version.vd_next == 0)
            return;
        offset = next_offset(data, offset, version.vd_next);
    }
}

void elf_reader::decide_kind()
{
    if (m_header.e_type == ET_EXEC || m_isMarkedProgram)
        m_result.type = elf_file::kind::program;
    else
        m_result.type = m_header.e_type == ET_DYN ? elf_file::kind::shared_library : elf_file::kind::other;
}

} // namespace

std::string machine_name(std::uint16_t machine)
{
    switch (machine) {
    case EM_ARM:
        return "ARM";
    case EM_AARCH64:
        return "AArch64";
    case EM_X86_64:
        return "x86-64";
    case EM_386:
        return "x86";
    case EM_RISCV:
        return "RISC-V";
    default:
        return "machine " + std::to_string(machine);
    }
}

std::string float_abi_name(float_abi floats)
{
    switch (floats) {
    case float_abi::not_applicable:
        return "";
    case float_abi::unmarked:
        return "float ABI not marked";
    case float_abi::soft:
        return "soft float";
    case float_abi::hard:
        break;
    }
    return "hard float";
}

bool elf_identity::operator==(const elf_identity& other) const
{
    return bits == other.bits && is_big_endian == other.is_big_endian && machine == other.machine &&
           floats == other.floats;
}

bool elf_identity::accepts(const elf_identity& library) const
{
    elf_identity as_this = library;
    if (library.floats == float_abi::unmarked)
        as_this.floats = floats;
    return *this == as_this;
}

std::string elf_identity::text() const
{
    const std::string float_words = float_abi_name(floats);
    return std::to_string(bits) + "-bit " + machine_name(machine) + (is_big_endian ? ", big-endian" : "") +
           (float_words.empty() ? "" : ", " + float_words);
}

elf_identity armhf_identity()
{
    return {32, false, EM_ARM, float_abi::hard};
}

elf_identity own_identity()
{
    return read_elf_file("/proc/self/exe").identity;
}

const elf_symbol* elf_file::find_symbol(const std::string& name) const
{
    const auto found = std::find_if(symbols.begin(), symbols.end(),
                                    [&](const elf_symbol& symbol) { return symbol.name == name; });
    return found == symbols.end() ? nullptr : &*found;
}

elf_file read_elf_file(const std::string& path)
{
    return elf_reader(path).read();
}

} // namespace tarvik::tvkctl
