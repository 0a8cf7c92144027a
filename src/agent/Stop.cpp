#include "agent/Stop.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>

#include <sys/eventfd.h>
#include <unistd.h>

namespace corv {
namespace {

volatile std::sig_atomic_t stopping = 0;
int wakeDescriptor = -1;

void onStopSignal(int)
{
    stopping = 1;
    const quint64 one = 1;
    (void)!::write(wakeDescriptor, &one, sizeof one); // a full counter has woken the loop already
}

} // namespace

void quitOnStopSignals(QCoreApplication *application)
{
    wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    auto *notifier = new QSocketNotifier(wakeDescriptor, QSocketNotifier::Read, application);
    QObject::connect(notifier, &QSocketNotifier::activated, application, &QCoreApplication::quit);

    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    // Whoever started the agent may have blocked them, and would then have to kill it.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);
}

bool stopRequested()
{
    return stopping != 0;
}

} // namespace corv
