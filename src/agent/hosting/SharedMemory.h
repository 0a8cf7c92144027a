#pragma once

#include <sys/types.h>

namespace corv::hosting {

// Removes what a user has among System V's shared memory, semaphores and message queues, which outlive processes.
void removeSystemVObjects(uid_t user);

} // namespace corv::hosting
