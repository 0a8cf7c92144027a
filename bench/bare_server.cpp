// What the agent's start is measured against: an application object that opens a local socket.

#include <QCoreApplication>
#include <QLocalServer>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QLocalServer server;
    if (argc < 2 || !server.listen(QString::fromLocal8Bit(argv[1])))
        return 1;
    return QCoreApplication::exec();
}
