#include "common/Archiver.h"

#include "common/Environment.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// tar reads a folder by a function that calls itself: the usual 8 MiB end before twenty thousand levels, which anybody
// can make.
constexpr qint64 kStackBytes = 1'073'741'824;
// What it keeps of each level is as long as the path there, so that its memory grows with the square of the depth: 1.3
// GB at twenty thousand levels, 5 GB at forty thousand. Such a home fails alone, before the kernel ends other accounts'
// services.
constexpr qint64 kMemoryBytes = 2'147'483'648;

// --sparse: the holes of a file, of which a full quota may have terabytes, are not read.
// --anchored: "--exclude=NAME/tmp" means that one folder. Else it is every folder tmp in a folder of that name, however
// deep; and each member is compared from each of its slashes on, which takes minutes at a thousand levels.
// --no-wildcards: a name is no pattern.
const auto kOptions = u"--sparse --anchored --no-wildcards"_s;

} // namespace

Surroundings archiverSurroundings()
{
    Surroundings surroundings;
    surroundings.environment = toolsVariables();
    surroundings.environment.insert(u"TAR_OPTIONS"_s, kOptions);
    surroundings.stackBytes = kStackBytes;
    surroundings.memoryBytes = kMemoryBytes;
    surroundings.linksLeadNowhere = true;
    return surroundings;
}

} // namespace corv::hosting
