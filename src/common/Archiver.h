#pragma once

#include "common/Run.h"

namespace corv::hosting {

// What tar gets around it wherever it makes an archive, so that nothing that a user lays into a home makes the archive
// incomplete, endless or impossible, and the compressor of ours, where this process was started to use it (see
// toolsVariables). The archives can be unpacked without any of it.
Surroundings archiverSurroundings();

} // namespace corv::hosting
