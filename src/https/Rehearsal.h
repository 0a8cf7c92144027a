#pragma once

#include <QByteArray>
#include <QString>

namespace corv::https {

// How a trial of Apache went.
struct Rehearsal
{
    enum class End {
        Up,       // it came up
        Down,     // it did not
        NoTime,   // it did neither in its time, or there was no memory for it
        NoSpaces, // the kernel does not let it be tried
    };
    End end = End::Down;
    QString complaint; // what Apache said when it did not come up, on one line
};

// Starts a whole second Apache with the server's own configuration and the sites of the file at sitesPath, waits until
// it is up, at most so many milliseconds, and ends it. It goes through all that ends a running Apache at a reload and
// that a test of the syntax does not look at. It runs in mount, network, process and IPC name spaces of its own, with
// logs and run folder in memory and changes to the certificates' store kept from the real one; with storeIsFull it
// cannot write there at all. Nothing of it is left. Its memory is limited; it inherits no descriptor.
Rehearsal rehearse(const QString &sitesPath, bool storeIsFull, int milliseconds);

// Asks Apache to read the configuration with the sites of that file, without starting: what is left where there are no
// name spaces. Finds errors of the syntax alone.
Rehearsal readOnly(const QString &sitesPath, int milliseconds);

// What Apache has as sites with those of that file, as it prints it; empty when its configuration cannot be read.
QByteArray dumpVhosts(const QString &sitesPath, int milliseconds);

// The last line of Apache's output that says what is wrong, without its date.
QString complaintIn(const QByteArray &output);

} // namespace corv::https
