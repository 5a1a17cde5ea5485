// The Qt adapter and the viewer against the cabin server simulator over real
// HTTPS on loopback: what a Qt application receives, on which thread, and
// what the passenger sees in the window.

#include <QELMaps/QELMaps.h>
#include <QELMapsQt/QtBroadcastMaps.h>
#include <gtest/gtest.h>
#include <qel/core/QELLogging.h>

#include <QApplication>
#include <cmath>
#include <limits>
#include <QTest>
#include <QThread>

#include "QtTestSupport.h"
#include "MapView.h"
#include "ViewerWindow.h"

// The mean and the share of far-off channels between a screenshot's map
// area, scaled back to the picture's size, and the served picture: smoothing
// blurs edges a little, nothing more.
void expectShown(const QImage& shot, QRect area, const qel::Image& served) {
  ASSERT_GE(area.width(), 400) << "the map is not scaled to the window";
  const QImage back = shot.copy(area)
                          .scaled(int(served.width()), int(served.height()), Qt::IgnoreAspectRatio,
                                  Qt::SmoothTransformation)
                          .convertToFormat(QImage::Format_RGBA8888);
  const auto expected = served.pixels();
  std::size_t total = 0, far = 0;
  for (int y = 0; y < back.height(); ++y) {
    const uchar* row = back.constScanLine(y);
    for (int x = 0; x < back.width() * 4; ++x) {
      if (x % 4 == 3) continue;  // both opaque
      const int d = std::abs(int(row[x]) - int(expected[(std::size_t(y) * served.width()) * 4 + x]));
      total += d;
      far += d > 48;
    }
  }
  const double pixels = double(back.width()) * back.height();
  EXPECT_LT(total / (pixels * 3), 3.0) << "mean difference per channel";
  EXPECT_LT(far / (pixels * 3), 0.01) << "share of channels off by more than 48";
}

namespace {

TEST(QtViewerTest, TheWindowShowsTheServedPictureSignalledOnTheGuiThreadUntilTheServerStops) {
  Simulator simulator;
  QImage picture, kept;
  QList<QSize> resolutions;
  std::vector<bool> receiving;
  int offThread = 0, statusChanges = 0;
  {
    qel::QtBroadcastMaps maps;
    ASSERT_TRUE(maps.isValid());
    // Each signal is recorded, and counted when it comes from another thread.
    const auto watch = [&](auto signal, auto record) {
      QObject::connect(&maps, signal, [&, record](const auto&... args) {
        offThread += QThread::currentThread() != qApp->thread();
        record(args...);
      });
    };
    watch(&qel::QtBroadcastMaps::imageChanged, [&](const QImage& image) { picture = image; });
    watch(&qel::QtBroadcastMaps::resolutionsChanged, [&](const QList<QSize>& sizes) { resolutions = sizes; });
    watch(&qel::QtBroadcastMaps::statusChanged, [&] { ++statusChanges; });
    watch(&qel::QtBroadcastMaps::receivingChanged, [&](bool on) { receiving.push_back(on); });

    maps.setResolution({800, 600});
    qelviewer::ViewerWindow window(maps);
    window.show();
    maps.start();
    const auto shown = [&] {
      return !picture.isNull() && window.statusText().startsWith("Live") && !window.mapView()->image().isNull();
    };
    ASSERT_TRUE(QTest::qWaitFor(shown, kWaitMs)) << window.statusText().toStdString();
    EXPECT_EQ(resolutions, (QList<QSize>{{1024, 768}, {800, 600}, {400, 300}})) << "the server's order";
    EXPECT_EQ(maps.resolution(), QSize(800, 600));
    EXPECT_TRUE(maps.hasMapData());
    EXPECT_EQ(picture.constBits(), maps.snapshot()->image->pixels().data()) << "the pixels were copied";
    const auto served = simulator.served({800, 600});
    ASSERT_TRUE(served);
    expectShown(window.grab().toImage(),
                window.mapView()->pictureRect().translated(window.mapView()->mapTo(&window, QPoint())), *served);

    // Another size through the slot takes effect with the next update.
    ASSERT_TRUE(QTest::qWaitFor([&] { return simulator.eventChannelUp(); }, kWaitMs));
    maps.setResolution({400, 300});
    simulator.tick();
    ASSERT_TRUE(QTest::qWaitFor([&] { return picture.width() == 400; }, kWaitMs)) << "the new size never came";
    kept = picture;

    // The server goes: the status says so, with the next attempt, and the
    // property and the status line agree.
    simulator.stop();
    const auto waiting = [&] {
      return maps.phase() == qel::QtBroadcastMaps::Phase::WaitingToRetry && maps.nextAttempt().isValid() &&
             window.statusText().contains(", next try in ");
    };
    ASSERT_TRUE(QTest::qWaitFor(waiting, kWaitMs)) << window.statusText().toStdString();
    EXPECT_GE(statusChanges, 2) << "live, then waiting";
    // The map stays on screen, marked as not live.
    EXPECT_TRUE(maps.isStale());
    EXPECT_EQ(window.mapView()->image().constBits(), maps.lastImage().constBits()) << "the map left the screen";
    EXPECT_TRUE(maps.image().isNull());
    maps.stop();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !maps.isReceiving(); }, kWaitMs));
  }
  EXPECT_EQ(offThread, 0) << "a signal came from another thread";
  EXPECT_EQ(receiving, (std::vector<bool>{true, false}));
  // The QImage keeps the decoded picture alive after the adapter is gone.
  const auto served = simulator.served({400, 300});
  ASSERT_TRUE(served);
  EXPECT_EQ(kept, QImage(served->pixels().data(), int(served->width()), int(served->height()), QImage::Format_RGBA8888))
      << "the picture differs from the served one";
}

TEST(QtBroadcastMapsTest, ServerSizesOfAnyMagnitudeBecomeWholePixels) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  constexpr int kMax = std::numeric_limits<int>::max(), kMin = std::numeric_limits<int>::min();
  using qel::QtBroadcastMaps;
  EXPECT_EQ(QtBroadcastMaps::pixelSize({1024.5, 767.4}), QSize(1025, 767));
  EXPECT_EQ(QtBroadcastMaps::pixelSize({1e39, -1e39}), QSize(kMax, kMin));
  EXPECT_EQ(QtBroadcastMaps::pixelSize({kInf, -kInf}), QSize(kMax, kMin));
  EXPECT_EQ(QtBroadcastMaps::pixelSize({3e9, std::nan("")}), QSize(kMax, 0));
}

}  // namespace

int main(int argc, char** argv) {
  // No display needed, wherever the tests run.
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  QApplication::setStyle("Fusion");
  qel::core::QELLogging::setThreshold(1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
