#include <QELMapsQt/QtMapItem.h>

#include <QFontMetrics>
#include <QGuiApplication>
#include <QPainter>
#include <QQuickWindow>
#include <QSGImageNode>
#include <QSGTexture>
#include <QtQml/qqml.h>

namespace qel {

QtMapItem::QtMapItem(QQuickItem* parent) : QQuickItem(parent) { setFlag(ItemHasContents); }

QtMapItem::~QtMapItem() = default;

void QtMapItem::registerQmlTypes(const char* uri) {
  qmlRegisterType<QtMapItem>(uri, 1, 0, "MapItem");
  qmlRegisterType<QtBroadcastMaps>(uri, 1, 0, "BroadcastMaps");
}

void QtMapItem::setMaps(QtBroadcastMaps* maps) {
  if (maps_ == maps) return;
  disconnect(connection_);
  maps_ = maps;
  if (maps_) connection_ = connect(maps_, &QtBroadcastMaps::imageChanged, this, &QtMapItem::show);
  show(maps_ ? maps_->image() : QImage());
  emit mapsChanged();
}

void QtMapItem::show(const QImage& image) {
  if (image.cacheKey() == image_.cacheKey() && image.isNull() == image_.isNull()) return;
  image_ = image;
  imageChanged_ = true;
  update();
  emit pictureChanged();
}

QRectF QtMapItem::pictureRect() const {
  if (image_.isNull() || width() <= 0 || height() <= 0) return {};
  const QSizeF fitted = QSizeF(image_.size()).scaled(size(), Qt::KeepAspectRatio);
  return {QPointF((width() - fitted.width()) / 2, (height() - fitted.height()) / 2), fitted};
}

void QtMapItem::geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) {
  QQuickItem::geometryChange(newGeometry, oldGeometry);
  if (newGeometry.size() != oldGeometry.size()) {
    update();
    emit pictureChanged();
  }
}

void QtMapItem::setPlaceholder(const QString& text) {
  if (placeholder_ == text) return;
  placeholder_ = text;
  if (image_.isNull()) {
    imageChanged_ = true;
    update();
  }
  emit placeholderChanged();
}

void QtMapItem::setPlaceholderColor(const QColor& color) {
  if (placeholderColor_ == color) return;
  placeholderColor_ = color;
  if (image_.isNull()) {
    imageChanged_ = true;
    update();
  }
  emit placeholderChanged();
}

QImage QtMapItem::placeholderImage() const {
  if (placeholder_.isEmpty()) return {};
  QFont font = QGuiApplication::font();
  font.setPointSizeF(font.pointSizeF() * 1.4);
  const qreal ratio = window() ? window()->effectiveDevicePixelRatio() : 1.0;
  const QSize size = QFontMetrics(font).size(Qt::TextSingleLine, placeholder_) + QSize(2, 2);
  QImage text(size * ratio, QImage::Format_ARGB32_Premultiplied);
  text.setDevicePixelRatio(ratio);
  text.fill(Qt::transparent);
  QPainter painter(&text);
  painter.setFont(font);
  painter.setPen(placeholderColor_);
  painter.drawText(QRect(QPoint(), size), Qt::AlignCenter, placeholder_);
  return text;
}

// On the render thread, with the GUI thread blocked: members may be read.
QSGNode* QtMapItem::updatePaintNode(QSGNode* old, UpdatePaintNodeData*) {
  auto* node = static_cast<QSGImageNode*>(old);
  if (!node) {
    node = window()->createImageNode();
    imageChanged_ = true;
  }
  QRectF rect = pictureRect();
  if (imageChanged_) {
    const QImage shown = image_.isNull() ? placeholderImage() : image_;
    if (shown.isNull()) {
      delete node;
      return nullptr;
    }
    // Replaced by hand: whether a node deletes the texture it drops differs
    // between scene graph backends; it deletes the one it holds at the end.
    QSGTexture* previous = node->texture();
    node->setOwnsTexture(false);
    node->setTexture(window()->createTextureFromImage(shown));
    node->setOwnsTexture(true);
    delete previous;
    imageChanged_ = false;
  }
  if (image_.isNull()) {
    // The placeholder at its own size, centred.
    const QSizeF text = QSizeF(node->texture()->textureSize()) / window()->effectiveDevicePixelRatio();
    rect = QRectF(QPointF((width() - text.width()) / 2, (height() - text.height()) / 2), text);
  }
  if (rect.isEmpty()) rect = QRectF(0, 0, 0, 0);
  // The map has thin lines and small text that nearest neighbour breaks up.
  node->setFiltering(smooth() ? QSGTexture::Linear : QSGTexture::Nearest);
  node->setRect(rect);
  return node;
}

}  // namespace qel
