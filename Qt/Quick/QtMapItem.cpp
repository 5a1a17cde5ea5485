#include <QELMapsQt/QtMapItem.h>

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

// On the render thread, with the GUI thread blocked: members may be read.
QSGNode* QtMapItem::updatePaintNode(QSGNode* old, UpdatePaintNodeData*) {
  auto* node = static_cast<QSGImageNode*>(old);
  const QRectF rect = pictureRect();
  if (image_.isNull() || rect.isEmpty()) {
    delete node;
    imageChanged_ = true;  // a later node needs its texture again
    return nullptr;
  }
  if (!node) {
    node = window()->createImageNode();
    imageChanged_ = true;
  }
  if (imageChanged_) {
    // Replaced by hand: whether a node deletes the texture it drops differs
    // between scene graph backends; it deletes the one it holds at the end.
    QSGTexture* previous = node->texture();
    node->setOwnsTexture(false);
    node->setTexture(window()->createTextureFromImage(image_));
    node->setOwnsTexture(true);
    delete previous;
    imageChanged_ = false;
  }
  // The map has thin lines and small text that nearest neighbour breaks up.
  node->setFiltering(smooth() ? QSGTexture::Linear : QSGTexture::Nearest);
  node->setRect(rect);
  return node;
}

}  // namespace qel
