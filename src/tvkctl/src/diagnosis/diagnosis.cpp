#include "tvkctl/src/diagnosis/diagnosis.h"

#include <utility>

#include "tvkctl/src/machine/command_error.h"

namespace tarvik::tvkctl {

namespace {

check_result look(const check& which, check_context& context)
{
    try {
        return which.look(context);
    } catch (const command_error& error) {
        check_result result{outcome::failed, cause{"error"}, error.what()};
        if (!error.advice().empty())
            result.next = {error.advice()};
        return result;
    }
}

} // namespace

const check* diagnose(const check* first, const check* last, check_context& context,
                      const std::function<void(const check_result&)>& tell)
{
    for (const check* next = first; next != last; ++next) {
        check_result result = look(*next, context);
        result.check = next->name;
        tell(result);
        if (result.came_out == outcome::failed)
            return next;
    }
    return nullptr;
}

} // namespace tarvik::tvkctl
