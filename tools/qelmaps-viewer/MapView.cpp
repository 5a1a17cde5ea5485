#include "MapView.h"

#include <QPainter>

namespace qelviewer {

MapView::MapView(QWidget* parent) : QWidget(parent) {
  // Every pixel is painted below: no background fill by Qt first.
  setAttribute(Qt::WA_OpaquePaintEvent);
}

void MapView::setImage(const QImage& image) {
  image_ = image;
  update();
}

void MapView::setPlaceholder(const QString& text) {
  if (placeholder_ == text) return;
  placeholder_ = text;
  if (image_.isNull()) update();
}

void MapView::setStale(const QString& caption) {
  if (staleCaption_ == caption) return;
  staleCaption_ = caption;
  if (!image_.isNull()) update();
}

QRect MapView::pictureRect() const {
  if (image_.isNull()) return {};
  const QSize fitted = image_.size().scaled(size(), Qt::KeepAspectRatio);
  return QRect(QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2), fitted);
}

void MapView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(rect(), QColor(0x12, 0x1c, 0x26));
  if (image_.isNull()) {
    painter.setPen(QColor(0xa8, 0xb4, 0xc0));
    QFont font = painter.font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    painter.setFont(font);
    painter.drawText(rect(), Qt::AlignCenter, placeholder_);
    return;
  }
  // Smooth scaling: the map has thin lines and small text that nearest
  // neighbour would break up.
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.drawImage(pictureRect(), image_);
  if (staleCaption_.isEmpty()) return;
  // Still the map, but visibly not the live one.
  painter.fillRect(pictureRect(), QColor(0x12, 0x1c, 0x26, 0x90));
  QFont font = painter.font();
  font.setPointSizeF(font.pointSizeF() * 1.6);
  font.setBold(true);
  painter.setFont(font);
  const QRect band = QRect(pictureRect().left(), pictureRect().bottom() - 64, pictureRect().width(), 48);
  painter.setPen(QColor(0xf0, 0xf4, 0xf8));
  painter.drawText(band, Qt::AlignCenter, staleCaption_);
}

}  // namespace qelviewer
