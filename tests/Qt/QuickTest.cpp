// The QML map item against the simulator, as a Qt Quick application uses it:
// what the scene graph draws, in a window whose shape is not the picture's.

#include <QELMaps/QELMaps.h>
#include <QELMapsQt/QtMapItem.h>
#include <gtest/gtest.h>

#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTest>
#include <cstdlib>

#include "QtTestSupport.h"

namespace {

TEST(QtQuickTest, TheItemDrawsTheServedPictureFittedThenThePlaceholderOnceTheMapIsGone) {
  // The CPU draws where there is no GPU, as on the offscreen platform.
  QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
  qel::QtMapItem::registerQmlTypes();
  Simulator simulator;
  QQmlApplicationEngine engine;
  engine.loadData(R"(
    import QtQuick
    import QtQuick.Window
    import QELMaps 1.0
    Window {
      width: 1000; height: 500; visible: true; color: "#ff00ff"
      BroadcastMaps { id: maps; objectName: "maps"; resolution: "800x600" }
      MapItem { objectName: "map"; anchors.fill: parent; maps: maps }
    })");
  ASSERT_EQ(engine.rootObjects().size(), 1);
  auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());
  auto* maps = window->findChild<qel::QtBroadcastMaps*>("maps");
  auto* map = window->findChild<qel::QtMapItem*>("map");
  ASSERT_TRUE(window && maps && map && maps->isValid());
  EXPECT_FALSE(map->hasPicture());
  maps->start();
  ASSERT_TRUE(QTest::qWaitFor([&] { return map->hasPicture(); }, kWaitMs));

  // 4:3 in 2:1: full height, centred, the window's colour either side.
  const QRectF expected(1000.0 / 2 - 500.0 * 4 / 3 / 2, 0, 500.0 * 4 / 3, 500);
  EXPECT_EQ(map->pictureRect(), expected);
  const QImage shot = window->grabWindow();
  EXPECT_EQ(shot.pixelColor(5, 250), QColor("#ff00ff"));
  EXPECT_EQ(shot.pixelColor(994, 250), QColor("#ff00ff"));
  const auto served = simulator.served({800, 600});
  ASSERT_TRUE(served);
  expectShown(shot, expected.toAlignedRect().adjusted(1, 1, -1, -1), *served);

  // No map: the placeholder text in the middle, and nothing else.
  simulator.stop();
  ASSERT_TRUE(QTest::qWaitFor([&] { return !map->hasPicture(); }, kWaitMs));
  const QImage gone = window->grabWindow();
  int text = 0;
  for (int y = 0; y < gone.height(); ++y) {
    for (int x = 0; x < gone.width(); ++x) {
      if (gone.pixelColor(x, y) == QColor("#ff00ff")) continue;
      ++text;
      EXPECT_LT(std::abs(y - 250), 40) << "drawn outside the placeholder's line at " << x << "," << y;
    }
  }
  EXPECT_GT(text, 50) << "no placeholder";
}

}  // namespace
