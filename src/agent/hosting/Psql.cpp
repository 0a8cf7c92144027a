#include "agent/hosting/Psql.h"

#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

QString psql(const QByteArray &script)
{
    return run(u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, u"psql"_s, u"-qtAX"_s, u"-v"_s, u"ON_ERROR_STOP=1"_s},
               script);
}

} // namespace corv::hosting
