#pragma once

#include "common/process/deadline.h"

namespace tarvik {

class child_process;

/// The port that a program which was just started announces: the first line of its standard output. Throws
/// front_end_error with failure::exited_early, start_refused, bad_port_line or timed_out; captured standard
/// error is part of its text.
int read_port_line(child_process& process, milliseconds timeout);

} // namespace tarvik
