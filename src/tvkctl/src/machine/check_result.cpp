#include "tvkctl/src/machine/check_result.h"

namespace tarvik::tvkctl {

const char* name_of(outcome came_out)
{
    switch (came_out) {
    case outcome::ok:
        return "ok";
    case outcome::warning:
        return "warning";
    case outcome::failed:
        return "failed";
    case outcome::not_checked:
        break;
    }
    return "not checked";
}

} // namespace tarvik::tvkctl
