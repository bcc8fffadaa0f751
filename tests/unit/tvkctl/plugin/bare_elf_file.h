#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace check_plugin_test {

/// The bytes of an object as they lie in memory.
template <typename Object>
std::string raw(const Object& object)
{
    std::string bytes(sizeof object, '\0');
    std::memcpy(bytes.data(), &object, sizeof object);
    return bytes;
}

/// An ELF file that is nothing but a header; `Header` is that of its class.
template <typename Header>
std::string bare_elf_file(std::uint16_t machine, std::uint32_t flags = 0)
{
    Header header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = sizeof header == sizeof(Elf32_Ehdr) ? ELFCLASS32 : ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = machine;
    header.e_version = EV_CURRENT;
    header.e_flags = flags;
    header.e_ehsize = sizeof header;
    return raw(header);
}

inline std::string bare_arm_file(std::uint32_t flags)
{
    return bare_elf_file<Elf32_Ehdr>(EM_ARM, EF_ARM_EABI_VER5 | flags);
}

} // namespace check_plugin_test
