// CReadSection: lets many threads use an object through a shared pointer while one replaces it.
//
// A reader costs two plain stores; the thread that replaces the object pays for both sides.
//
//   reader:    CReadSection section;          replacer:  T* pOld = exchange(pointer, pNew);
//              T* p = load(pointer);                     CReadSection::waitForReaders();
//              if (p) p->use();                          delete pOld;
#ifndef READ_SECTION_H
#define READ_SECTION_H

class CReadSection
{
public:
    // Enters a section on the calling thread; sections nest, and end on the thread that began them.
    // Not for signal handlers. Leaves errno as it was.
    CReadSection() noexcept;
    ~CReadSection();
    CReadSection(const CReadSection&) = delete;
    CReadSection& operator=(const CReadSection&) = delete;

    // Returns when every section of other threads that was open at the call has been left. The
    // calling thread's own sections are not waited for. Two threads that both call this inside a
    // section wait for each other for ever. Leaves errno as it was.
    static void waitForReaders() noexcept;

    struct CThread;

private:
    CThread* const m_pThread;
};

#endif
