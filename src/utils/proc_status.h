// The process table as the kernel shows it under "/proc".
//
// Processes come and go while the table is read: one that ends between
// being listed and being read is skipped, never an error. Failing to list "/proc"
// itself throws SystemError "opendir /proc" or "readdir /proc".
#ifndef MAILTEND_UTILS_PROC_STATUS_H
#define MAILTEND_UTILS_PROC_STATUS_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace zarnet {
namespace process {

// Gets each process's pid, parent pid and command name (the kernel's short
// name, at most 15 bytes); returning true ends the walk.
typedef std::function<bool(pid_t pid, pid_t ppid, const std::string &name)> ProcessVisitor;

// As walkProcesses, over the children of parent only: from the kernel's
// list of them where it keeps one (no walk of every process), else by the
// walk.
bool walkChildren(pid_t parent, const ProcessVisitor &visit);

// One process's parent pid and command name; false when it is gone.
bool readProcess(pid_t pid, pid_t &ppid, std::string &name);

// True when the visitor ended the walk, false when it saw every process.
bool walkProcesses(const ProcessVisitor &visit);

} // namespace process
} // namespace zarnet

#endif
