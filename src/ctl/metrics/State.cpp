#include "ctl/metrics/State.h"

#include "common/AtomicFile.h"
#include "common/Json.h"
#include "ctl/doctor/SiteFacts.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr qint64 kLargest = 4'194'304;
constexpr int kForm = 1; // of the file; another one is that of another version
const auto kFile = kMetricsFolder + u"/state.json"_s;

} // namespace

QString makeMetricsFolder()
{
    if (::mkdir(QFile::encodeName(kMetricsFolder).constData(), kFolderMode) == 0 || errno == EEXIST)
        return {};
    return u"%1 cannot be made: %2"_s.arg(kMetricsFolder, QString::fromLocal8Bit(std::strerror(errno)));
}

QJsonObject readMetricsState(QString *problem)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(kFile).constData(), &status) != 0 && errno == ENOENT)
        return {};
    const QJsonObject object = parseObject(readUpTo(kFile, kLargest).value_or(QByteArray()));
    if (object.value("form"_L1).toInt() == kForm && object.value("collectors"_L1).isObject())
        return object.value("collectors"_L1).toObject();
    *problem = u"%1 is damaged; all is counted anew"_s.arg(kFile);
    return {};
}

QString keepMetricsState(const QJsonObject &state)
{
    const QByteArray text = compactJson({{u"form"_s, kForm}, {u"collectors"_s, state}}) + '\n';
    return replaceFile(kFile, text, kFileMode) ? QString() : u"cannot write "_s + kFile;
}

} // namespace corv::ctl
