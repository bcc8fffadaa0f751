#pragma once

#include <string>
#include <vector>

#include "tvkctl/src/machine/advice.h"

namespace tarvik::tvkctl {

/// An advice as one line: in words, or as a shell takes it, with what it is good for behind it.
std::string text_of(const advice& what);

/// All of them as sentences, in one line.
std::string sentences_of(const std::vector<advice>& all);

} // namespace tarvik::tvkctl
