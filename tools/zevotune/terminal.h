#ifndef ZEVOTUNE_TERMINAL_H
#define ZEVOTUNE_TERMINAL_H

#include "style.h"

/// Whether the environment's locale has UTF-8.
bool IsUtf8Locale();

/// How wide standard output is: 80 columns where it is no terminal, or one that does not tell.
size_t OutputColumns();

/// What fits standard output: colours on a terminal that has them, unless the environment's NO_COLOR asks for none, and
/// its width.
Look OutputLook();

/// Whether standard output is a terminal on which a line can be drawn anew.
bool IsLiveTerminal();

#endif
