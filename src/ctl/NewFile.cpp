#include "ctl/NewFile.h"

#include "ctl/Transfer.h"

#include <QFile>
#include <QFileInfo>

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

NewFile::NewFile(const QString &path)
    : m_path(QFile::encodeName(path)),
      m_temporary(QFile::encodeName(QFileInfo(path).path() + u"/.corvctl-"_s + transferName())),
      m_file(::open(m_temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666))
{}

NewFile::~NewFile()
{
    if (m_file && !m_kept)
        (void)::unlink(m_temporary.constData());
}

bool NewFile::keep()
{
    m_kept = ::rename(m_temporary.constData(), m_path.constData()) == 0;
    return m_kept;
}

} // namespace corv::ctl
