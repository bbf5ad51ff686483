// The results of each call that are to be tried.
#include "CallFaults.h"

#include <cerrno>

namespace faults
{

namespace
{
using Errors = std::vector<int>;

const Errors& errorsOfPath(Call call)
{
    static const Errors open = {EACCES, EDQUOT, EINTR,  EIO,    ELOOP, EMFILE,
                                ENFILE, ENOENT, ENOMEM, ENOSPC, ENXIO, EROFS};
    static const Errors make = {EACCES, EDQUOT, EEXIST, ENOENT, ENOMEM, ENOSPC, EPERM, EROFS};
    static const Errors folder = {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR};
    static const Errors look = {EACCES, EIO, ELOOP, ENOMEM, EOVERFLOW}; // ENOENT would be a lie
    static const Errors rename = {EACCES, EBUSY, EDQUOT, EIO, ENOENT, ENOMEM, ENOSPC, EPERM, EROFS};
    static const Errors remove = {EACCES, EBUSY, EIO, ENOENT, ENOMEM, EPERM, EROFS};
    static const Errors access = {EACCES, EIO, ENOENT, EROFS};
    switch (call)
    {
    case Call::Open: return open;
    case Call::Mknod: return make;
    case Call::OpenDir: return folder;
    case Call::Rename: return rename;
    case Call::Unlink: return remove;
    case Call::Faccessat: return access;
    default: return look; // lstat, stat
    }
}

const Errors& errorsOfRead(Object object)
{
    static const Errors pipe = {EAGAIN, EBADF, EINTR, EIO, SHORT, NOTHING};
    static const Errors file = {EBADF, EINTR, EIO, SHORT};
    return object == Object::Pipe ? pipe : file;
}

const Errors& errorsOfWrite(Object object)
{
    static const Errors pipe = {EAGAIN, EBADF, EINTR, EIO, EPIPE, SHORT};
    // With any other error finalize cannot wait for the thread, which does not happen on a pipe of one's own.
    static const Errors wake = {EAGAIN, SHORT};
    static const Errors file = {EBADF, EDQUOT, EFBIG, EINTR, EIO, ENOSPC, SHORT, NOTHING};
    static const Errors standardError = {EAGAIN, EBADF, EINTR, EIO, EPIPE, SHORT, NOTHING};
    switch (object)
    {
    case Object::Pipe: return pipe;
    case Object::Wake: return wake;
    case Object::StandardError: return standardError;
    default: return file;
    }
}
} // namespace

const Errors& errorsOf(Call call, Object object)
{
    static const Errors close = {EDQUOT, EINTR, EIO, ENOSPC};
    static const Errors closeDir = {EBADF};
    static const Errors fallocate = {EFBIG, EINTR, EIO, ENODEV, ENOSPC, EOPNOTSUPP, EPERM};
    static const Errors fcntl = {EBUSY, EINVAL, ENOMEM, EPERM};
    static const Errors sync = {EBADF, EDQUOT, EINTR, EIO, ENOSPC, EROFS};
    static const Errors lock = {EINTR, ENOLCK, EWOULDBLOCK};
    static const Errors status = {EBADF, EIO, ENOMEM, ENOSYS, EOVERFLOW};
    static const Errors cut = {EBADF, EFBIG, EINTR, EINVAL, EIO, EPERM, EROFS};
    static const Errors key = {EAGAIN, ENOMEM};
    static const Errors setSpecific = {EINVAL, ENOMEM};
    static const Errors limit = {EINVAL, EPERM};
    static const Errors seek = {EBADF, EINVAL, EOVERFLOW, ESPIPE};
    static const Errors barrier = {EINVAL, ENOSYS, EPERM};
    static const Errors map = {EACCES, EAGAIN, ENODEV, ENOMEM, EPERM};
    static const Errors unmap = {EINVAL, ENOMEM};
    static const Errors wait = {EAGAIN, EINTR, EINVAL, ENOMEM, NOTHING};
    static const Errors readDir = {EBADF, EIO, ENOENT};
    static const Errors signal = {EINVAL};
    static const Errors sleep = {EINTR};
    static const Errors thread = {EAGAIN, ENOMEM, EPERM};
    switch (call)
    {
    case Call::Close: return close;
    case Call::CloseDir: return closeDir;
    case Call::Fallocate: return fallocate;
    case Call::Fcntl: return fcntl;
    case Call::Fdatasync: return sync;
    case Call::Flock: return lock;
    case Call::Fstat:
    case Call::Fstatfs: return status;
    case Call::Ftruncate: return cut;
    case Call::Getrlimit: return limit;
    case Call::Key: return key;
    case Call::Lseek: return seek;
    case Call::Membarrier: return barrier;
    case Call::Mmap: return map;
    case Call::Munmap: return unmap;
    case Call::Poll: return wait;
    case Call::Pread:
    case Call::Read: return errorsOfRead(object);
    case Call::ReadDir: return readDir;
    case Call::SetSpecific: return setSpecific;
    case Call::Signal: return signal;
    case Call::Sleep: return sleep;
    case Call::Thread: return thread;
    case Call::Write: return errorsOfWrite(object);
    default: return errorsOfPath(call);
    }
}

const char* nameOf(Call call)
{
    static const char* const apszNames[] = {"close",      "closedir",
                                            "faccessat",  "fallocate",
                                            "fcntl",      "fdatasync",
                                            "flock",      "fstat",
                                            "fstatfs",    "ftruncate",
                                            "getrlimit",  "pthread_key_create",
                                            "lseek",      "lstat",
                                            "membarrier", "mknod",
                                            "mmap",       "munmap",
                                            "open",       "opendir",
                                            "poll",       "pread",
                                            "read",       "readdir",
                                            "rename",     "pthread_setspecific",
                                            "signal",     "nanosleep",
                                            "stat",       "pthread_create",
                                            "unlink",     "write"};
    return apszNames[static_cast<int>(call)];
}

const char* nameOf(Object object)
{
    static const char* const apszNames[] = {"", " pipe", " wake-up", " file", " stderr"};
    return apszNames[static_cast<int>(object)];
}

} // namespace faults
