// An owned libsndfile handle. The descriptor below it stays with its own owner.
#ifndef DRIVER_SND_FILE_H
#define DRIVER_SND_FILE_H

#include <sndfile.h>

#include <memory>

struct CSndFileClose
{
    void operator()(SNDFILE* pFile) const { sf_close(pFile); }
};

using CSndFile = std::unique_ptr<SNDFILE, CSndFileClose>;

#endif
