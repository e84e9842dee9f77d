// The agent program's entry: arguments, version and help, the watchdog parent, signals, trace and
// log set-up, the first request and the run until shutdown. Returns only for the version switches;
// every other path ends the process with its exit code:
//   0 normal end (or help), 1 usage error, 2 could not fork / no view handler / the first request
//   failed / the agent died of a signal (as its watchdog reports it), 4 the run failed.
#pragma once

int tavrel_agent_main(int argc, char** argv);

// Identification printed by -Ver/-Version.
const char* tavrel_agent_version();
