#pragma once

namespace tarvex::server {

/// The program's "account" commands, for operators: who logs in, and as whom at Box.
/// \param argc, argv  the word "account" first, then the rest of the command line
/// \return what the program ends with: 0 done; 1 Box or the person said no; 2 wrong use, or a mistake in the
///         configuration. What went wrong is on standard error then.
[[nodiscard]] int account_run(int argc, char** argv);

}  // namespace tarvex::server
