// What the Qt tests share: the simulator with the core kit pointed at it,
// and the check that a screenshot shows the served picture.
#pragma once

#include <qel/Image.h>

#include <QImage>
#include <QRect>
#include <QSize>
#include <memory>

#include "../Support/Simulator.h"

// How long the GUI thread's loop runs for a condition to hold (QTest::qWaitFor).
constexpr int kWaitMs = 15000;

// The simulator on a thread of its own (the host has its own, and the GUI
// thread must stay free to receive), with the core kit pointed at it.
struct Simulator : qel::testing::Simulator {
  Simulator() { qel::core::QELConfiguration::set(configuration()); }
  std::shared_ptr<const qel::Image> served(QSize size) {
    const auto png = call([&](cabinsim::Server& server) { return server.currentPng({size.width(), size.height()}); });
    return qel::Image::fromData({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()});
  }
};

void expectShown(const QImage& shot, QRect area, const qel::Image& served);
