// What the statements stand in that a guide shows without more: check-guide.
#include "OrvLogLib.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

static void statements(CZelMediaServices& services, CZelMediaStream* pStream, unsigned long ulPhrases)
{
    (void)services;
    (void)pStream;
    (void)ulPhrases;
