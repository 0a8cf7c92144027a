#include "agent/hosting/SharedMemory.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace corv::hosting {
namespace {

// Declared by its users, says semctl(2).
union SemaphoreArgument {
    int value;
    semid_ds *buffer;
    unsigned short *array;
    seminfo *info;
};

bool isOf(uid_t user, const ipc_perm &owner)
{
    return owner.uid == user || owner.cuid == user;
}

void removeMemory(uid_t user)
{
    shm_info info = {};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): one argument for several types, says shmctl(2)
    const int last = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&info));
    for (int index = 0; index <= last; ++index) {
        shmid_ds segment = {};
        const int id = ::shmctl(index, SHM_STAT, &segment);
        if (id >= 0 && isOf(user, segment.shm_perm))
            (void)::shmctl(id, IPC_RMID, nullptr);
    }
}

void removeSemaphores(uid_t user)
{
    seminfo info = {};
    SemaphoreArgument argument = {};
    argument.info = &info;
    const int last = ::semctl(0, 0, SEM_INFO, argument);
    for (int index = 0; index <= last; ++index) {
        semid_ds set = {};
        argument.buffer = &set;
        const int id = ::semctl(index, 0, SEM_STAT, argument);
        if (id >= 0 && isOf(user, set.sem_perm))
            (void)::semctl(id, 0, IPC_RMID);
    }
}

void removeQueues(uid_t user)
{
    msginfo info = {};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): one argument for several types, says msgctl(2)
    const int last = ::msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds *>(&info));
    for (int index = 0; index <= last; ++index) {
        msqid_ds queue = {};
        const int id = ::msgctl(index, MSG_STAT, &queue);
        if (id >= 0 && isOf(user, queue.msg_perm))
            (void)::msgctl(id, IPC_RMID, nullptr);
    }
}

} // namespace

void removeSystemVObjects(uid_t user)
{
    removeMemory(user);
    removeSemaphores(user);
    removeQueues(user);
}

} // namespace corv::hosting
