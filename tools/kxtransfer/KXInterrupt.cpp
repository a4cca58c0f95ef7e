#include "KXInterrupt.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_requested = 0;

extern "C" void onInterrupt(int)
{
    g_requested = 1;
}

} // namespace

void CKXInterrupt::install()
{
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    // One-shot: the next Ctrl-C gets the default action and kills the process.
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
}

bool CKXInterrupt::requested()
{
    return g_requested != 0;
}
