#pragma once

namespace corv {

// A view of the file system that one program alone has. All but the last of these are called between fork and exec, in
// the child: they consist of system calls.

// Gives this process mounts of its own. What is mounted on the server from now on still shows in them; what is mounted
// in them shows nowhere else. False where the kernel or the rights do not allow it: nothing is mounted then.
bool leaveMounts();

// Makes every symbolic link below the folder lead nowhere for this process, mounts below it included: whoever follows
// one gets ELOOP, reading or removing one goes on as ever. The folder's own path may hold links. Call leaveMounts
// first. False on kernels before 5.14, and then nothing has changed.
bool closeLinks(const char *folder);

// Puts a file in the place of another for this process. Call leaveMounts first.
bool coverFile(const char *file, const char *with);

// Whether a program that this process starts could be given mounts in which no link below the folder leads anywhere:
// tries it in a child.
bool canCloseLinks(const char *folder);

} // namespace corv
