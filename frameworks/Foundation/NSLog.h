#pragma once

// What the frameworks report on standard error.

/// Writes one message as printf formats it, after the local time, the process's name, its id and
/// the thread's; the line end is added when it is missing. Any thread: each message goes out whole, in one
/// write. Blocks as long as standard error does. `errno` is left as it was.
[[gnu::format(printf, 1, 2)]] void NSLog(const char* format, ...);
