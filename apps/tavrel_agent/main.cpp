// tavrel_agent: the per-view daemon.
#include "apps/tavrel_agent/tavrel_agent_main.h"

int main(int argc, char** argv) { return tavrel_agent_main(argc, argv); }
