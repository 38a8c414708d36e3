// Linked into the executables of an AddressSanitizer build only
// (cmake/KeldraSanitize.cmake). A child that a program forks and that ends
// with exit() before any exec (keldra's child when the exec of a daemon
// fails) would run LeakSanitizer's check at its exit. Only the forking thread
// exists in that child, so whatever only the other threads' stacks held looks
// leaked there. The process that was started is checked at its own exit; its
// forked copies are not.
#include <unistd.h>

namespace {

const pid_t started_as = getpid();

} // namespace

extern "C" int __lsan_is_turned_off()
{
    return getpid() != started_as;
}
