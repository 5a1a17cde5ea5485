#pragma once

#include <QELMapsQt/QtBroadcastMaps.h>

#include <QColor>
#include <QImage>
#include <QPointer>
#include <QQuickItem>
#include <QRectF>
#include <QString>

namespace qel {

// The moving map as a Qt Quick item: shows the picture of a BroadcastMaps
// scaled to the item with its aspect kept and centred, and the placeholder
// text, centred, while there is no picture (hasPicture says which).
//
// A new picture is uploaded to the scene graph once, as one texture, when it
// arrives; every frame after that draws the same texture. The resolutions,
// the chosen resolution and whether the map is received are the properties
// of the BroadcastMaps object (QtBroadcastMaps) given as `maps`.
//
// Threading: a QQuickItem; GUI thread only. registerQmlTypes() once, before
// the QML that uses it is loaded.
//
//   qel::QtMapItem::registerQmlTypes();   // import QELMaps 1.0
//   engine.loadData(R"(
//     import QtQuick
//     import QELMaps 1.0
//     Window {
//       BroadcastMaps { id: maps; Component.onCompleted: start() }
//       MapItem { anchors.fill: parent; maps: maps }
//     })");
class QtMapItem : public QQuickItem {
  Q_OBJECT
  Q_PROPERTY(qel::QtBroadcastMaps* maps READ maps WRITE setMaps NOTIFY mapsChanged)
  Q_PROPERTY(bool hasPicture READ hasPicture NOTIFY pictureChanged)
  Q_PROPERTY(QRectF pictureRect READ pictureRect NOTIFY pictureChanged)
  Q_PROPERTY(QString placeholder READ placeholder WRITE setPlaceholder NOTIFY placeholderChanged)
  Q_PROPERTY(QColor placeholderColor READ placeholderColor WRITE setPlaceholderColor NOTIFY placeholderChanged)

 public:
  explicit QtMapItem(QQuickItem* parent = nullptr);
  ~QtMapItem() override;

  // Registers MapItem and BroadcastMaps (QtBroadcastMaps) under `uri`
  // version 1.0.
  static void registerQmlTypes(const char* uri = "QELMaps");

  QtBroadcastMaps* maps() const { return maps_; }
  void setMaps(QtBroadcastMaps* maps);

  bool hasPicture() const { return !image_.isNull(); }
  // Where the picture is drawn, in the item's coordinates; empty without one.
  QRectF pictureRect() const;

  // Shown while there is no picture; "No map data" unless set.
  QString placeholder() const { return placeholder_; }
  void setPlaceholder(const QString& text);
  QColor placeholderColor() const { return placeholderColor_; }
  void setPlaceholderColor(const QColor& color);

 signals:
  void mapsChanged();
  void pictureChanged();
  void placeholderChanged();

 protected:
  QSGNode* updatePaintNode(QSGNode* node, UpdatePaintNodeData* data) override;
  void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;

 private:
  void show(const QImage& image);
  // The placeholder text drawn once into an image, uploaded like a picture.
  QImage placeholderImage() const;

  QPointer<QtBroadcastMaps> maps_;
  QMetaObject::Connection connection_;
  QImage image_;
  QString placeholder_ = QStringLiteral("No map data");
  QColor placeholderColor_ = QColor(0xa8, 0xb4, 0xc0);
  // What the node shows has changed and is not yet uploaded.
  bool imageChanged_ = true;
};

}  // namespace qel
