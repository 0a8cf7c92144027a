#include "agent/hosting/Psql.h"

#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

QString psql(const QByteArray &script)
{
    Streams streams;
    streams.input = script;
    Surroundings surroundings;
    // The scripts call functions by their bare names: one of the same name that a tenant left in a schema on the
    // superuser's path must not be the one that is found.
    surroundings.environment.insert(u"PGOPTIONS"_s, u"-csearch_path=pg_catalog"_s);
    return runWith(u"runuser"_s,
                   {u"-u"_s, u"postgres"_s, u"--"_s, u"psql"_s, u"-qtAX"_s, u"-v"_s, u"ON_ERROR_STOP=1"_s}, streams,
                   surroundings);
}

} // namespace corv::hosting
