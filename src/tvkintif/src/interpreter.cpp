#include "tvkintif/src/interpreter.h"

#include <dlfcn.h>

#include <stdexcept>

#include "common/log/logger.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "interpreter";

template <typename Function>
void look_up(void* handle, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(handle, name)); // how the loader hands functions out
}

} // namespace

interpreter::interpreter(std::string path)
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("interpreter load %s", path.c_str());
    m_handle = dlopen(path.c_str(), RTLD_LAZY);
    if (m_handle == nullptr) {
        const char* reason = dlerror(); // can be read only once
        Logger(kUnit, __LINE__, ESeveryLevel::info)("interpreter load fails %s", reason);
        throw std::runtime_error("interpreter : load failed.");
    }
    look_up(m_handle, "interpreter_ctor", m_ctor);
    look_up(m_handle, "interpreter_dtor", m_dtor);
    look_up(m_handle, "interpreter_reader", m_reader);
    look_up(m_handle, "interpreter_writer", m_writer);
    if (m_ctor == nullptr || m_dtor == nullptr || m_reader == nullptr || m_writer == nullptr) {
        unload();
        Logger(kUnit, __LINE__, ESeveryLevel::info)("interpreter function load errors");
        throw std::runtime_error("interpreter : invalid symboles.");
    }
}

interpreter::~interpreter()
{
    unload();
}

int interpreter::ctor(transfer reader, transfer writer)
{
    return m_ctor(reader, writer);
}

void interpreter::dtor()
{
    m_dtor();
}

int interpreter::read(void* buffer, int length)
{
    return m_reader(buffer, length);
}

int interpreter::write(void* buffer, int length)
{
    return m_writer(buffer, length);
}

void interpreter::unload()
{
    if (m_handle == nullptr)
        return;
    dlclose(m_handle);
    m_handle = nullptr;
}
