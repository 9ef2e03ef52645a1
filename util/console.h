// Terminal output helpers.
#ifndef WEBCHANNEL_UTIL_CONSOLE_H
#define WEBCHANNEL_UTIL_CONSOLE_H

#include <string>

#include "../channel/webchannel_export.h"

// Hardware name from uname ("x86_64"); empty on failure.
WEBCHANNEL_EXPORT std::string get_arch();
// Columns of the terminal on standard output; 80 when unknown, below 10 or above 80.
WEBCHANNEL_EXPORT int get_window_width();
// A ruler of dashes as wide as the terminal, and a newline.
WEBCHANNEL_EXPORT void print_dashes();
// Prints `text` word-wrapped to the terminal width, UTF-8 aware. Returns 0.
WEBCHANNEL_EXPORT int print_string(const std::string& text);

#endif
