#include "fuzz.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

#include <grp.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::fuzz {
namespace {

constexpr uid_t kNobody = 65'534;

// What a fuzzer does to the machine is nothing: handlers may get as far as writing a file, which nobody may.
void dropRights()
{
    if (::getuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0))
        std::abort();
    qputenv("PATH", "/nowhere");
}

void show(const char *what, const QByteArray &found, const QByteArray &wanted)
{
    (void)std::fprintf(stderr, "broken rule: %s\n found: \"%s\"\nwanted: \"%s\"\n", what,
                       found.toPercentEncoding(" /,:.<>[]()").constData(),
                       wanted.toPercentEncoding(" /,:.<>[]()").constData());
    std::abort();
}

} // namespace

void require(bool condition, const char *what)
{
    if (condition)
        return;
    (void)std::fprintf(stderr, "broken rule: %s\n", what);
    std::abort();
}

void requireSame(const QByteArray &found, const QByteArray &wanted, const char *what)
{
    if (found != wanted)
        show(what, found, wanted);
}

void requireSame(const QString &found, const QString &wanted, const char *what)
{
    if (found != wanted)
        show(what, found.toUtf8(), wanted.toUtf8());
}

QString text(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes);
}

} // namespace corv::fuzz

// NOLINTNEXTLINE(readability-non-const-parameter): the fuzzers' library says how it is declared
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    qputenv("LC_ALL", "C.UTF-8");
    corv::fuzz::dropRights();
    static QCoreApplication application(*argc, *argv);
    QCoreApplication::setApplicationVersion(u"0.1"_s);
    return 0;
}
