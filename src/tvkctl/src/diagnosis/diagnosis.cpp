#include "tvkctl/src/diagnosis/diagnosis.h"

#include <utility>

#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

check_result look(const check& which, check_context& context)
{
    try {
        return which.look(context);
    } catch (const tool_error& error) {
        return {outcome::failed, error.why(), error.what(), {}, error.next()};
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
