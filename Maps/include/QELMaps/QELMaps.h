#pragma once

// QELMaps: the broadcast moving map of the cabin network for applications.

extern "C" {
// "@(#)PROGRAM:QELMaps  PROJECT:Maps-1\n", for tools that look for "@(#)".
extern const unsigned char QELMapsVersionString[];
extern const double QELMapsVersionNumber;
}
