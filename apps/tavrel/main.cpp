// tavrel: the command-line client.
#include "apps/tavrel/cli.h"

int main(int argc, char** argv) { return tavrel::cli::main(argc, argv); }
