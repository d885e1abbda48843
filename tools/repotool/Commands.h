// The repotool commands. Each returns the exit code and throws std::runtime_error for a fault,
// which main reports on standard error.
#pragma once

#include "repotool/Options.h"

namespace commands {

int Sample(const Options& o);
int Build(const Options& o);
int Bump(const Options& o);
int Withdraw(const Options& o);
int Backtrack(const Options& o);
int Stop(const Options& o);
int Break(const Options& o);
int Evil(const Options& o);
int Inventory(const Options& o);

}  // namespace commands
