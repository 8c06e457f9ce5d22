// Prints the engine's build banner (liblog writes host log lines to stderr).
#include "BuildBanner.h"

int main() {
    qlmr::logBuildBanner();
    return 0;
}
