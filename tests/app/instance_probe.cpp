// Takes an instance number in the folder given as argv[1], prints it, and holds it until
// standard input closes (or the process is killed).
#include <cstdio>

#include "app/InstanceLock.h"

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    const InstanceLock lock = InstanceLock::acquire(QString::fromLocal8Bit(argv[1]));
    std::printf("%d %d\n", lock.number(), lock.isLocked() ? 1 : 0);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
