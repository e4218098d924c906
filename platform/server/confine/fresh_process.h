#pragma once

#include <initializer_list>

namespace tarvex::server {

/// What a process that was forked, and goes on without exec, must not keep of its parent's.

/// Closes every descriptor above standard error but these: the parent's own, and what the program was started with.
/// Were one left open, its other end would take this process for whoever opened it.
void close_others(std::initializer_list<int> kept);

/// For a process that holds passwords and tokens: no core dump gets them, and no other process of the same user may
/// look.
void hide_memory();

/// Standard input is empty from now on.
void read_nothing_from_stdin();

}  // namespace tarvex::server
