#include "ctl/Input.h"

#include "ctl/Session.h"

#include <QFile>

#include <cstdio>
#include <iostream>
#include <string>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

std::optional<QByteArray> readSource(const Session &session, const QString &path)
{
    QFile file;
    bool open = false;
    if (path == "-"_L1 && session.options.isOneOfMany) {
        (void)fail(kWrongUsage, u"standard input cannot go to several servers: name a file"_s);
        return {};
    }
    if (path == "-"_L1) {
        if (session.terminal.in && session.terminal.error)
            (void)std::fputs("corvctl: reading from the terminal; end with Ctrl-D\n", stderr);
        open = file.open(stdin, QIODevice::ReadOnly);
    } else {
        file.setFileName(path);
        open = file.open(QIODevice::ReadOnly);
    }
    if (!open) {
        (void)fail(kWrongUsage, u"cannot read %1: %2"_s.arg(path, file.errorString()));
        return {};
    }
    QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        (void)fail(kWrongUsage, u"cannot read %1: %2"_s.arg(path, file.errorString()));
        return {};
    }
    return content;
}

std::optional<QString> confirmation(const Session &session, const QString &question)
{
    if (session.options.confirm)
        return QString::fromStdString(*session.options.confirm);
    if (!session.terminal.in || !session.terminal.error) {
        (void)fail(kWrongUsage, u"this has to be confirmed"_s, u"give --confirm NAME where nobody can be asked"_s);
        return {};
    }
    (void)std::fputs((question + u' ').toUtf8().constData(), stderr);
    std::string line;
    if (!std::getline(std::cin, line)) {
        (void)std::fputs("\n", stderr);
        return QString();
    }
    return QString::fromStdString(line);
}

} // namespace corv::ctl
