// The names under which calls with times are linked: where a word has 32 bits, those with times after 2038.
#ifndef CALL_NAMES_H
#define CALL_NAMES_H

#ifdef __i386__
#define __real_clock_gettime __real___clock_gettime64
#define __wrap_clock_gettime __wrap___clock_gettime64
#define __real_clock_nanosleep __real___clock_nanosleep_time64
#define __wrap_clock_nanosleep __wrap___clock_nanosleep_time64
#define __real_fcntl64 __real___fcntl_time64
#define __wrap_fcntl64 __wrap___fcntl_time64
#define __real_fstat64 __real___fstat64_time64
#define __wrap_fstat64 __wrap___fstat64_time64
#define __real_lstat64 __real___lstat64_time64
#define __wrap_lstat64 __wrap___lstat64_time64
#define __real_nanosleep __real___nanosleep64
#define __wrap_nanosleep __wrap___nanosleep64
#define __real_stat64 __real___stat64_time64
#define __wrap_stat64 __wrap___stat64_time64
#endif

#endif
