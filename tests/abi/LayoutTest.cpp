// The layout of the public classes, on which programs that exist rely: sizes, members, slots of virtual functions.
#include "OrvException.h"
#include "OrvLogLib.h"
#include "ZelMediaServices.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <string>
#include <type_traits>

using OrvLogLib::CLogFile;
using OrvLogLib::CLogFileRegistry;
using OrvLogLib::CLogSettings;
using OrvLogLib::LogLib_Priority;

namespace
{
constexpr size_t WORD = sizeof(void*);

template <typename T> constexpr bool isOneWord = sizeof(T) == WORD && alignof(T) == WORD;
static_assert(isOneWord<CZelMediaServices> && !std::is_polymorphic_v<CZelMediaServices>);
static_assert(isOneWord<CZelMediaStream> && !std::is_polymorphic_v<CZelMediaStream>);
static_assert(isOneWord<CZelMediaStreamCompletionHandler> && std::is_abstract_v<CZelMediaStreamCompletionHandler>);

// Dispatch table, trace classes, implementation.
static_assert(sizeof(CLogFile) == 3 * WORD && alignof(CLogFile) == WORD);
// Dispatch table, name.
static_assert(sizeof(CLogFileRegistry) == WORD + 64 && alignof(CLogFileRegistry) == WORD);
// Dispatch table, code, location, up to the next word.
static_assert(sizeof(OrvException) == (WORD + 4 + 271 + WORD - 1) / WORD * WORD && alignof(OrvException) == WORD);
static_assert(std::is_base_of_v<std::exception, OrvException>);

static_assert(std::is_standard_layout_v<CLogSettings> && alignof(CLogSettings) == WORD);
static_assert(sizeof(CLogSettings) == (3 * WORD + 15 * 4 + WORD - 1) / WORD * WORD);
static_assert(offsetof(CLogSettings, pszFolder) == 0);
static_assert(offsetof(CLogSettings, pszExtension) == WORD);
static_assert(offsetof(CLogSettings, pszLinePrefix) == 2 * WORD);
static_assert(offsetof(CLogSettings, nStartFresh) == 3 * WORD);
static_assert(offsetof(CLogSettings, nFileEnabled) == 3 * WORD + 4);
static_assert(offsetof(CLogSettings, nMaxFileMegabytes) == 3 * WORD + 8);
static_assert(offsetof(CLogSettings, nRetryMilliseconds) == 3 * WORD + 12);
static_assert(offsetof(CLogSettings, nRotatedFiles) == 3 * WORD + 16);
static_assert(offsetof(CLogSettings, nTraceMask) == 3 * WORD + 20);
static_assert(offsetof(CLogSettings, nSyslogMask) == 3 * WORD + 24);
static_assert(offsetof(CLogSettings, nFileMask) == 3 * WORD + 28);
static_assert(offsetof(CLogSettings, nStderrMask) == 3 * WORD + 32);
static_assert(offsetof(CLogSettings, nMaxLineLength) == 3 * WORD + 36);
static_assert(offsetof(CLogSettings, nSyncEachLine) == 3 * WORD + 40);
static_assert(offsetof(CLogSettings, nSyslogAlarms) == 3 * WORD + 44);
static_assert(offsetof(CLogSettings, nReopenMilliseconds) == 3 * WORD + 48);
static_assert(offsetof(CLogSettings, nMicroseconds) == 3 * WORD + 52);
static_assert(offsetof(CLogSettings, nUtc) == 3 * WORD + 56);

static_assert(std::is_same_v<MCSTATUS, int>);
static_assert(sizeof(CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON) == 4);
static_assert(std::is_same_v<std::underlying_type_t<LogLib_Priority>, int>);
static_assert(OrvLogLib::LogLib_Normal == 2 && OrvLogLib::LogLib_Low == 4 && OrvLogLib::LogLib_High == 64);

// On i386, as a program that was built there knows them.
static_assert(WORD != 4 || (sizeof(CLogFile) == 12 && sizeof(CLogFileRegistry) == 68 && sizeof(CLogSettings) == 72 &&
                            sizeof(OrvException) == 280));
static_assert(WORD != 8 || (sizeof(CLogFile) == 24 && sizeof(CLogFileRegistry) == 72 && sizeof(CLogSettings) == 88 &&
                            sizeof(OrvException) == 288));

// What the calls through the slots did.
std::string s_strCalls;

// The slots of an object's dispatch table: the address is the first word of the object.
template <typename FUNCTION> FUNCTION slot(const void* pObject, size_t nSlot)
{
    void** ppTable;
    std::memcpy(&ppTable, pObject, sizeof(ppTable));
    FUNCTION pFunction;
    std::memcpy(&pFunction, &ppTable[nSlot], sizeof(pFunction));
    return pFunction;
}

// How many slots there are: the library tells the size of the table, which begins with two words of its own.
size_t slotsOf(const char* pszTable)
{
    void* pTable = dlsym(RTLD_DEFAULT, pszTable);
    Dl_info info;
    ElfW(Sym)* pSymbol = nullptr;
    if (!pTable || !dladdr1(pTable, &info, reinterpret_cast<void**>(&pSymbol), RTLD_DL_SYMENT) || !pSymbol)
        return 0;
    return pSymbol->st_size / WORD - 2;
}

typedef void (*DESTRUCTOR)(void* pObject);

class CHandler : public CZelMediaStreamCompletionHandler
{
public:
    ~CHandler() override { s_strCalls += "destroyed "; }
    void operator delete(void* pObject)
    {
        s_strCalls += "deleted ";
        ::operator delete(pObject);
    }
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        s_strCalls += "completion " + std::to_string(reinterpret_cast<size_t>(pStream)) + " " +
                      std::to_string(mcstatus) + " " + std::to_string(reason) + " ";
    }
};

class CLog : public CLogFile
{
public:
    CLog() : CLogFile("layout", nullptr, false, false, false) {}
    ~CLog() override { s_strCalls += "destroyed "; }
    void operator delete(void* pObject)
    {
        s_strCalls += "deleted ";
        ::operator delete(pObject);
    }
    long ReportEventToWIN32Log(long nEventID, unsigned short, unsigned long, const char**, void*) override
    {
        s_strCalls += "alarm " + std::to_string(nEventID) + " ";
        return 7;
    }
};

class CRegistry : public CLogFileRegistry
{
public:
    CRegistry() : CLogFileRegistry(nullptr, "n", "", "", "", 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}
    ~CRegistry() override { s_strCalls += "destroyed "; }
    void operator delete(void* pObject)
    {
        s_strCalls += "deleted ";
        ::operator delete(pObject);
    }
};

class Layout : public testing::Test
{
protected:
    void SetUp() override { s_strCalls.clear(); }

    // The first two slots of a class with a virtual destructor: destroy, and destroy and release.
    template <typename CLASS> void expectDestructorsFirst()
    {
        void* const pMemory = ::operator new(sizeof(CLASS));
        CLASS* pObject = new (pMemory) CLASS;
        slot<DESTRUCTOR>(pObject, 0)(pObject);
        EXPECT_EQ(s_strCalls, "destroyed ");
        pObject = new (pMemory) CLASS;
        slot<DESTRUCTOR>(pObject, 1)(pObject);
        EXPECT_EQ(s_strCalls, "destroyed destroyed deleted ");
    }
};

TEST_F(Layout, TheHandlersSlotsAreTwoDestructorsAndTheCompletion)
{
    EXPECT_EQ(slotsOf("_ZTV32CZelMediaStreamCompletionHandler"), 3U);
    expectDestructorsFirst<CHandler>();
    s_strCalls.clear();
    CHandler handler;
    typedef void (*COMPLETION)(void*, CZelMediaStream*, MCSTATUS,
                               CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON);
    slot<COMPLETION>(&handler, 2)(&handler, reinterpret_cast<CZelMediaStream*>(17), 46,
                                  CZelMediaStreamCompletionHandler::MCCR_RECORD);
    EXPECT_EQ(s_strCalls, "completion 17 46 2 ");
}

TEST_F(Layout, TheLogFilesSlotsAreTwoDestructorsLineAndAlarm)
{
    EXPECT_EQ(slotsOf("_ZTVN9OrvLogLib8CLogFileE"), 4U);
    expectDestructorsFirst<CLog>();
    s_strCalls.clear();
    CLog log;
    typedef long (*ALARM)(void*, long, unsigned short, unsigned long, const char**, void*);
    EXPECT_EQ(slot<ALARM>(&log, 3)(&log, 400, 0, 0, nullptr, nullptr), 7);
    EXPECT_EQ(s_strCalls, "alarm 400 ");
}

TEST_F(Layout, TheRegistrysSlotsAreTwoDestructors)
{
    EXPECT_EQ(slotsOf("_ZTVN9OrvLogLib16CLogFileRegistryE"), 2U);
    expectDestructorsFirst<CRegistry>();
}

TEST_F(Layout, TheExceptionsSlotsAreTwoDestructorsAndWhat)
{
    const OrvException exception(OrvException::OUT_OF_MEMORY, "file", 5);
    typedef const char* (*WHAT)(const void*);
    EXPECT_STREQ(slot<WHAT>(&exception, 2)(&exception), "file.5");
}

// What a program that was built long ago has in this slot.
int lineOfAnOldProgram(void*, LogLib_Priority, const char* pszFormat, const char*, va_list)
{
    s_strCalls += std::string("old ") + pszFormat;
    return 9;
}

TEST_F(Layout, TheLibraryGivesLinesToSlotTwo)
{
    CLog log;
    void** ppTable;
    std::memcpy(&ppTable, static_cast<void*>(&log), sizeof(ppTable));
    void* apTable[6];
    std::memcpy(apTable, ppTable - 2, sizeof(apTable)); // with the two words before the slots
    void** const ppSlots = apTable + 2;
    ppSlots[2] = reinterpret_cast<void*>(&lineOfAnOldProgram);
    std::memcpy(static_cast<void*>(&log), &ppSlots, sizeof(ppSlots));
    EXPECT_EQ(log.TraceString(1, OrvLogLib::LogLib_Normal, "text"), 9);
    std::memcpy(static_cast<void*>(&log), &ppTable, sizeof(ppTable));
    EXPECT_EQ(s_strCalls, "old text");
}
} // namespace
