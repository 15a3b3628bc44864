// orvoindexd: keeps the media and photo databases in step with the shares.
#include "daemon/daemon.h"

int main(int argc, char** argv) { return RunDaemon(argc, argv); }
