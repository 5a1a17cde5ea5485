#pragma once

// QELMaps: the broadcast moving map of the cabin network, for applications.
//
//   #include <QELMaps/QELMaps.h>
//   auto maps = qel::QELBroadcastMapsV1::create();

#include <QELMaps/QELBroadcastMapsHost.h>
#include <QELMaps/QELBroadcastMapsNotifications.h>
#include <QELMaps/QELBroadcastMapsSnapshot.h>
#include <QELMaps/QELBroadcastMapsV1.h>

#include <qel/Format.h>
#include <qel/Image.h>
#include <qel/NotificationCenter.h>
#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>

extern "C" {
// "@(#)PROGRAM:QELMaps  PROJECT:Maps-1" and a line feed, for tools that look
// for the "@(#)" marker.
extern const unsigned char QELMapsVersionString[];
extern const double QELMapsVersionNumber;
}
