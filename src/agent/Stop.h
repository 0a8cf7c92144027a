#pragma once

class QCoreApplication;

namespace corv {

// Makes SIGTERM and SIGINT end the application's event loop once the handler that is running has returned. The request
// in hand is so always finished and answered: an account is never left half-made by a stop.
void quitOnStopSignals(QCoreApplication *application);

// True as soon as one of those signals has arrived: no further request is begun.
bool stopRequested();

} // namespace corv
