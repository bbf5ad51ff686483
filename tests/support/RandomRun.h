// What random runs share: sizes and seeds from the environment, and the word about a seed that crashes.
#ifndef _RANDOMRUN_H_
#define _RANDOMRUN_H_

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

// What a sanitizer calls before it ends the program.
extern "C" void __sanitizer_set_death_callback(void (*pCallBack)()) __attribute__((weak));

template <class NUMBER> NUMBER setting(const char* pszName, NUMBER nDefault)
{
    const char* const pszValue = getenv(pszName);
    return pszValue && *pszValue ? static_cast<NUMBER>(strtoull(pszValue, nullptr, 0)) : nDefault;
}

inline bool settingIsAll(const char* pszName)
{
    const char* const pszValue = getenv(pszName);
    return pszValue && strcmp(pszValue, "all") == 0;
}

// From now on a crash prints the value that the variable has then.
inline void tellSeedIfItCrashes(const uint64_t& ullSeed)
{
    static const uint64_t* s_pullSeed = nullptr;
    s_pullSeed = &ullSeed;
    const auto tell = [] { fprintf(stderr, "crashed at seed %llu\n", static_cast<unsigned long long>(*s_pullSeed)); };
    if (__sanitizer_set_death_callback)
        return __sanitizer_set_death_callback(tell);
    static constexpr auto TELL = tell;
    for (const int nSignal : {SIGABRT, SIGBUS, SIGFPE, SIGSEGV})
    {
        signal(
            nSignal,
            [](int nRaised) {
                TELL();
                signal(nRaised, SIG_DFL);
                raise(nRaised);
            });
    }
}

#endif
