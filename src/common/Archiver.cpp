#include "common/Archiver.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// tar reads a folder by a function that calls itself: the usual 8 MiB end before twenty thousand levels, which anybody
// can make.
constexpr qint64 kStackBytes = 1'073'741'824;

// --sparse: the holes of a file, of which a full quota may have terabytes, are not read.
// --anchored: "--exclude=NAME/tmp" means that one folder. Else it is every folder tmp in a folder of that name, however
// deep; and each member is compared from each of its slashes on, which takes minutes at a thousand levels.
// --no-wildcards: a name is no pattern.
const auto kOptions = u"--sparse --anchored --no-wildcards"_s;

} // namespace

Surroundings archiverSurroundings()
{
    Surroundings surroundings;
    surroundings.environment.insert(u"TAR_OPTIONS"_s, kOptions);
    surroundings.stackBytes = kStackBytes;
    surroundings.linksLeadNowhere = true;
    return surroundings;
}

} // namespace corv::hosting
