#include "tvkctl/src/plugin/plugin_check.h"

#include <gnu/libc-version.h>

#include <algorithm>
#include <set>
#include <utility>

#include "common/text/text.h"
#include "tvkctl/src/plugin/library_search.h"
#include "tvkctl/src/plugin/plugin_cause.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::size_t kNamesShown = 5;

/// Libraries that tvkintif loads itself. A plugin that uses one without saying so is served by accident.
constexpr std::array<const char*, 2> kProgramLibraries = {"libusb-1.0.so.0", "libstdc++.so.6"};

check_result good(std::string check, std::string summary)
{
    return {outcome::ok, {}, std::move(summary), {}, {}, std::move(check)};
}

check_result bad(std::string check, cause why, std::string summary, std::string next)
{
    return {outcome::failed, why, std::move(summary), {}, {std::move(next)}, std::move(check)};
}

check_result warning(std::string check, cause why, std::string summary, std::string next)
{
    return {outcome::warning, why, std::move(summary), {}, {std::move(next)}, std::move(check)};
}

check_result not_checked(std::string check, std::string summary, std::vector<advice> next)
{
    return {outcome::not_checked, cause{"no_libraries"}, std::move(summary), {},
            std::move(next),      std::move(check)};
}

/// "a, b and 3 more".
std::string enumeration(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t index = 0; index < std::min(names.size(), kNamesShown); ++index)
        text += (index == 0 ? "" : ", ") + names[index];
    if (names.size() > kNamesShown)
        text += " and " + std::to_string(names.size() - kNamesShown) + " more";
    return text;
}

std::string build_advice(const plugin_target& target)
{
    return target.name == "armhf" ? "Build it with arm-linux-gnueabihf-gcc, or judge it with --for native."
                                  : "Build it with this machine's compiler, or judge it with --for armhf.";
}

/// "2.34" as numbers, so that 2.4 is older than 2.34.
std::vector<unsigned long> version_numbers(const std::string& version)
{
    std::vector<unsigned long> numbers;
    for (const std::string& part : split(version, '.'))
        numbers.push_back(std::strtoul(part.c_str(), nullptr, 10));
    return numbers;
}

bool is_older(const std::string& one, const std::string& other)
{
    return version_numbers(one) < version_numbers(other);
}

/// Looks at one file for one target; each check is a function that returns its line.
class examination {
public:
    examination(const elf_file& file, const plugin_target& target);

    std::vector<check_result> all() const;

private:
    check_result kind() const;
    check_result elf_class() const;
    check_result machine() const;
    check_result floats() const;
    check_result libraries() const;
    check_result c_library() const;
    check_result versions() const;
    check_result entry_point(const std::string& name) const;
    check_result undefined_symbols() const;
    check_result stack() const;
    check_result relocations() const;

    check_result without_libraries(const char* check) const;
    /// What is needed and cannot be looked for without the libraries.
    check_result not_looked_for(const char* check, const std::vector<std::string>& needed) const;
    std::vector<std::string> missing_versions() const;
    /// Undefined symbols that none of these libraries has.
    std::vector<std::string> unresolved(const std::vector<const library_closure*>& providers) const;
    library_closure program_libraries() const;

    const elf_file& m_file;
    const plugin_target& m_target;
    library_search m_search;
    bool m_hasClosure; ///< m_closure could be gathered
    library_closure m_closure;
};

examination::examination(const elf_file& file, const plugin_target& target)
    : m_file(file), m_target(target), m_search(target.loader, target.root),
      m_hasClosure(target.has_libraries && target.loader.accepts(file.identity))
{
    if (m_hasClosure)
        m_closure = follow_needs(file, m_search);
}

std::vector<check_result> examination::all() const
{
    std::vector<check_result> results = {kind(), elf_class(), machine()};
    if (m_file.identity.machine == m_target.loader.machine &&
        m_target.loader.floats != float_abi::not_applicable)
        results.push_back(floats());
    results.push_back(libraries());
    results.push_back(c_library());
    results.push_back(versions());
    for (const char* name : kEntryPoints)
        results.push_back(entry_point(name));
    results.push_back(undefined_symbols());
    results.push_back(stack());
    results.push_back(relocations());
    return results;
}

check_result examination::kind() const
{
    switch (m_file.type) {
    case elf_file::kind::shared_library:
        return good("kind", "shared library");
    case elf_file::kind::program:
        return bad("kind", plugin_cause::kNotALibrary, "a program, which cannot be loaded as a library",
                   "Link with -shared -fPIC and without -pie.");
    case elf_file::kind::other:
        break;
    }
    return bad("kind", plugin_cause::kNotALibrary, "an object file or a core, which cannot be loaded",
               "Link it with -shared.");
}

check_result examination::elf_class() const
{
    const auto text = [](const elf_identity& identity) {
        return std::to_string(identity.bits) + "-bit, " + (identity.is_big_endian ? "big" : "little") +
               "-endian";
    };
    const std::string has = text(m_file.identity);
    const std::string needs = text(m_target.loader);
    return has == needs ? good("class", has)
                        : bad("class", plugin_cause::kWrongMachine, has + "; a process there is " + needs,
                              build_advice(m_target));
}

check_result examination::machine() const
{
    const std::string has = machine_name(m_file.identity.machine);
    if (m_file.identity.machine == m_target.loader.machine)
        return good("machine", has);
    return bad("machine", plugin_cause::kWrongMachine,
               has + "; a process there runs on " + machine_name(m_target.loader.machine),
               build_advice(m_target));
}

check_result examination::floats() const
{
    const float_abi has = m_file.identity.floats;
    const std::string evidence = float_abi_name(has);
    if (has == m_target.loader.floats)
        return good("float ABI", evidence);
    if (has == float_abi::unmarked)
        return warning("float ABI", cause{"unmarked_float_abi"}, evidence,
                       "Look for Tag_ABI_VFP_args: VFP registers in the output of readelf -A.");
    return bad("float ABI", plugin_cause::kWrongMachine,
               evidence + "; a process there passes numbers by " + float_abi_name(m_target.loader.floats),
               "Build with -mfloat-abi=hard (arm-linux-gnueabihf-gcc does).");
}

check_result examination::without_libraries(const char* check) const
{
    if (m_target.has_libraries)
        return not_checked(check, "the loader there does not take this file", {});
    return not_checked(check, "the libraries of the other machine are not here",
                       {"Name a folder with them: --sysroot DIR."});
}

check_result examination::not_looked_for(const char* check, const std::vector<std::string>& needed) const
{
    if (needed.empty())
        return good(check, "none needed");
    check_result open_question = without_libraries(check);
    open_question.summary = "needs " + enumeration(needed) + "; " + open_question.summary;
    return open_question;
}

check_result examination::libraries() const
{
    if (!m_hasClosure)
        return not_looked_for("libraries", m_file.needed);
    if (m_closure.absent.empty())
        return good("libraries", m_file.needed.empty() ? "none needed" : enumeration(m_file.needed));
    std::vector<std::string> absent;
    for (const library_closure::absence& library : m_closure.absent)
        absent.push_back(library.name + " (needed by " + library.needed_by + ")");
    return bad("libraries", plugin_cause::kNeedsMissing, "not found: " + enumeration(absent),
               "Install them, or link the plugin without them.");
}

check_result examination::c_library() const
{
    const std::string prefix = "GLIBC_";
    std::string newest;
    for (const elf_version_need& need : m_file.version_needs) {
        if (need.version.compare(0, prefix.size(), prefix) != 0)
            continue;
        const std::string number = need.version.substr(prefix.size());
        if (number == "PRIVATE")
            return warning("glibc", cause{"private_symbols"},
                           "uses internals of glibc that change with each version (GLIBC_PRIVATE)",
                           "Do without them, or build for one version of the system only.");
        if (newest.empty() || is_older(newest, number))
            newest = number;
    }
    if (newest.empty())
        return good("glibc", "any version");
    if (!is_older(m_target.glibc, newest))
        return good("glibc", newest + " or newer; there is " + m_target.glibc);
    return bad("glibc", plugin_cause::kNeedsMissing, newest + " or newer; there is only " + m_target.glibc,
               "Build on a system with glibc " + m_target.glibc + " or older.");
}

std::vector<std::string> examination::missing_versions() const
{
    std::vector<std::string> missing;
    for (const elf_version_need& need : m_file.version_needs) {
        const elf_file* library = m_closure.find(need.library);
        if (library == nullptr)
            continue; // told as a missing library
        const auto& has = library->versions;
        if (std::find(has.begin(), has.end(), need.version) == has.end())
            missing.push_back(need.version + " of " + need.library);
    }
    return missing;
}

check_result examination::versions() const
{
    if (!m_hasClosure)
        return without_libraries("versions");
    const auto missing = missing_versions();
    if (missing.empty())
        return good("versions", "every library has the versions that are needed");
    return bad("versions", plugin_cause::kNeedsMissing, "not there: " + enumeration(missing),
               "Build against the libraries of the machine.");
}

check_result examination::entry_point(const std::string& name) const
{
    const auto incomplete = [&](const std::string& evidence, const std::string& advice) {
        return bad(name, plugin_cause::kIncomplete, evidence, advice);
    };
    const elf_symbol* symbol = m_file.find_symbol(name);
    const std::string mangled = "_Z" + std::to_string(name.size()) + name;
    const auto is_mangled = [&](const elf_symbol& other) {
        return other.name.compare(0, mangled.size(), mangled) == 0;
    };
    if (symbol == nullptr && std::any_of(m_file.symbols.begin(), m_file.symbols.end(), is_mangled))
        return incomplete("only there under a C++ name",
                          "Include <tarvik/interpreter.h> where it is defined.");
    if (symbol == nullptr)
        return incomplete("not there", "Define it as in <tarvik/interpreter.h>; look for hidden visibility.");
    if (!symbol->is_defined)
        return incomplete("used, but not defined", "Define it as in <tarvik/interpreter.h>.");
    if (!symbol->is_exported)
        return incomplete("defined, but not visible from outside", "Declare it with TARVIK_EXPORT.");
    if (!symbol->is_function)
        return incomplete("not a function", "Define it as in <tarvik/interpreter.h>.");
    return good(name, "function, exported");
}

library_closure examination::program_libraries() const
{
    elf_file program{};
    program.needed.assign(kProgramLibraries.begin(), kProgramLibraries.end());
    return follow_needs(program, m_search);
}

std::vector<std::string> examination::unresolved(const std::vector<const library_closure*>& providers) const
{
    std::set<std::string> provided;
    for (const library_closure* closure : providers)
        for (const elf_file& library : closure->libraries)
            for (const elf_symbol& symbol : library.symbols)
                if (symbol.is_exported)
                    provided.insert(symbol.name);
    std::vector<std::string> names;
    for (const elf_symbol& symbol : m_file.symbols)
        if (!symbol.is_defined && !symbol.is_weak && provided.count(symbol.name) == 0)
            names.push_back(symbol.name);
    return names;
}

check_result examination::undefined_symbols() const
{
    if (!m_hasClosure)
        return not_looked_for("symbols", unresolved({}));
    if (!m_closure.absent.empty())
        return not_checked("symbols", "libraries that may have them are missing",
                           {"See the libraries above."});
    const auto open = unresolved({&m_closure});
    if (open.empty())
        return good("symbols", "all that it uses are in libraries that it names");
    const library_closure lent = program_libraries();
    const auto nowhere = unresolved({&m_closure, &lent});
    if (nowhere.empty())
        return warning("symbols", cause{"borrowed_symbols"},
                       enumeration(open) + ": only there because tvkintif loads the library itself",
                       "Name the library when linking; -Wl,-z,defs finds all such cases.");
    return bad(
        "symbols", plugin_cause::kNeedsMissing, "in no library that it names: " + enumeration(nowhere),
        "Name the library when linking; a function that is missing ends the process when it is called.");
}

check_result examination::stack() const
{
    if (!m_file.wants_executable_stack)
        return good("stack", "not executable");
    return warning("stack", cause{"executable_stack"}, "asks for an executable stack, for the whole process",
                   "Find the assembler file without .note.GNU-stack, or link with -Wl,-z,noexecstack.");
}

check_result examination::relocations() const
{
    if (!m_file.has_text_relocations)
        return good("relocations", "none in the code");
    return warning("relocations", cause{"text_relocations"},
                   "code is rewritten when it is loaded, which hardened systems refuse",
                   "Compile every file with -fPIC.");
}

} // namespace

plugin_target armhf_target(const std::string& root, const std::string& glibc)
{
    const elf_identity loader = armhf_identity();
    return {"armhf", loader, glibc, root, !root.empty() || own_identity() == loader};
}

plugin_target native_target()
{
    return {"native", own_identity(), gnu_get_libc_version(), "", true};
}

std::vector<check_result> check_plugin(const elf_file& file, const plugin_target& target)
{
    return examination(file, target).all();
}

} // namespace tarvik::tvkctl
