#include "ctl/Interrupt.h"

#include <csignal>
#include <initializer_list>

namespace corv::ctl {
namespace {

volatile std::sig_atomic_t signalled = 0;
int guards = 0; // that are there

void note(int signal)
{
    signalled = signal;
}

void setHandlers(void (*ending)(int), void (*pipe)(int))
{
    struct sigaction action = {};
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        action.sa_handler = ending; // without SA_RESTART: what waits is to come back
        (void)::sigaction(signal, &action, nullptr);
    }
    action.sa_handler = pipe;
    (void)::sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

InterruptGuard::InterruptGuard()
{
    if (guards++ > 0)
        return;
    signalled = 0; // one that came before has had its effect
    setHandlers(note, SIG_IGN);
}

InterruptGuard::~InterruptGuard()
{
    if (--guards == 0)
        setHandlers(SIG_DFL, SIG_DFL);
}

bool interrupted()
{
    return signalled != 0;
}

void forgetInterrupt()
{
    signalled = 0;
}

int interruptedStatus()
{
    return 128 + signalled;
}

} // namespace corv::ctl
