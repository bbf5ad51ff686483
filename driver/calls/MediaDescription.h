// What a request says about the media of a leg.
#ifndef DRIVER_MEDIA_DESCRIPTION_H
#define DRIVER_MEDIA_DESCRIPTION_H

#include "JsonFields.h"
#include "RtpSession.h"

// The settings of a leg about which nothing was said.
CMediaSettings defaultMedia();

// Changes what is given and leaves what is not. Mistakes are reported to the fields.
void readMediaDescription(CJsonFields& fields, CMediaSettings& settings);

#endif
