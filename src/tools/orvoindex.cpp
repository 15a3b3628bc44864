// orvoindex: queues one command for the indexing daemon and wakes it.
#include <cstdio>

#include "tools/client.h"

int main(int argc, char** argv) { return RunClient(argc, argv, kClientPaths, stdout, stderr); }
