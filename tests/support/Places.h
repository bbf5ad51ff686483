// Where programs and files are that tests need: what zelmedia_places of cmake/Tests.cmake gives to a program.
#ifndef PLACES_H
#define PLACES_H

extern const char* const ASSETS;
extern const char* const EXAMPLES;
extern const char* const GOLDEN;
extern const char* const HEAP_GAUGE;
extern const char* const LIBRARY_SOURCES;
extern const char* const MANUAL;
extern const char* const PUBLIC_HEADER;
extern const char* const PYTHON_EXAMPLE;
extern const char* const REFERENCE_DRIVER_PROGRAM;
extern const char* const SIP_PROGRAM;
extern const char* const SIP_SCENARIOS;
extern const char* const SPEECH_CHECK;
extern const char* const STEP_DRIVER_PROGRAM;
extern const char* const ZELMEDIA_PROGRAM;

#endif
