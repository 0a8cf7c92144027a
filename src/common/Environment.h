#pragma once

namespace corv {

// Settles what the tools inherit that this process starts: English messages whatever the server's locale, for their
// output is parsed, and none of the variables that would turn psql or a dynamic loader elsewhere. PATH and the time
// zone stay with whoever started us.
void cleanEnvironment();

} // namespace corv
