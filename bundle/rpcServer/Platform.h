#pragma once

#include <string>

/// The directory of the running program; empty if the system does not say. Any thread.
std::string ownDirectory();

/// Closes every descriptor but the three standard ones. Call it first of all.
void closeInherited();
