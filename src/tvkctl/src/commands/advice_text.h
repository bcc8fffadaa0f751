#pragma once

#include <string>
#include <vector>

#include "tvkctl/src/machine/advice.h"

namespace tarvik::tvkctl {

/// A piece of advice as one line: in words, or as a shell takes it, followed by what it is good for.
std::string text_of(const advice& what);

/// All of them as sentences, in one line.
std::string sentences_of(const std::vector<advice>& all);

} // namespace tarvik::tvkctl
