#pragma once

/* Where the tracing plugin writes down what is asked of it. */
#define TRACE_FILE "/run/plugin.trace"
