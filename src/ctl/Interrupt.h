#pragma once

namespace corv::ctl {

// As long as one of these is there, the signals that would end the program (interrupt, hang-up, termination, a pipe
// that nobody reads) make system calls fail instead, so that nothing half done is left behind.
class InterruptGuard
{
public:
    InterruptGuard();
    InterruptGuard(const InterruptGuard &) = delete;
    InterruptGuard &operator=(const InterruptGuard &) = delete;
    InterruptGuard(InterruptGuard &&) = delete;
    InterruptGuard &operator=(InterruptGuard &&) = delete;
    // From here on the signals end the program again, unless another guard is there.
    ~InterruptGuard();
};

// Whether such a signal (but for the pipe) has come since the first guard that is there was made.
bool interrupted();

// Makes it as if none had come, so that what has to be done after one can be.
void forgetInterrupt();

// The exit status that tells of the signal, as a shell has it: 130 for the interrupt.
int interruptedStatus();

} // namespace corv::ctl
