#pragma once

/// Runs of the program's entry with somebody at the window: each looks around when the event loop
/// has begun, does one thing, and notes in the call log what it sees. A process runs one scenario,
/// the one that the environment variable ORVANE_SCENARIO names.
namespace EntryScenarios {

constexpr const char *variable = "ORVANE_SCENARIO";

/// Returns what the entry returned; 42 when an exception came out of it.
int run(int argc, char **argv);

} // namespace EntryScenarios
