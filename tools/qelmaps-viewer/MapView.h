#pragma once

#include <QImage>
#include <QString>
#include <QWidget>

namespace qelviewer {

// Shows the map picture scaled to fit, aspect kept, centred on a dark
// background; a line of text instead when there is no picture.
//
// Threading: a widget; GUI thread only.
//
//   auto* view = new qelviewer::MapView(parent);
//   view->setImage(picture);            // a null QImage shows the placeholder
//   view->setPlaceholder("No map data");
//   view->setStale("updated 40 s ago");  // the picture dimmed, the caption over it
class MapView : public QWidget {
  Q_OBJECT

 public:
  explicit MapView(QWidget* parent = nullptr);

  void setImage(const QImage& image);
  void setPlaceholder(const QString& text);
  // A stale picture is drawn dimmed, with `caption` ("updated 40 s ago")
  // over it; an empty caption draws it as it is.
  void setStale(const QString& caption);
  const QImage& image() const { return image_; }

  // Where the picture is drawn, in this widget's coordinates; empty without
  // a picture.
  QRect pictureRect() const;

  QSize sizeHint() const override { return {1024, 768}; }
  QSize minimumSizeHint() const override { return {160, 120}; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QImage image_;
  QString placeholder_;
  QString staleCaption_;
};

}  // namespace qelviewer
