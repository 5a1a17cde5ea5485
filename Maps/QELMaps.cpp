#include <QELMaps/QELMaps.h>

extern "C" {
const unsigned char QELMapsVersionString[] = "@(#)PROGRAM:QELMaps  PROJECT:Maps-1\n";
const double QELMapsVersionNumber = 1.0;
}
