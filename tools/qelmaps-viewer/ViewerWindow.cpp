#include "ViewerWindow.h"

#include <QELMapsQt/QtBroadcastMaps.h>

#include <QComboBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStatusBar>
#include <QToolBar>

#include "MapView.h"

#include <algorithm>

namespace qelviewer {

namespace {

QString sizeText(QSize size) { return QStringLiteral("%1 × %2").arg(size.width()).arg(size.height()); }

QString ageText(qint64 ms) {
  if (ms < 60'000) return QStringLiteral("%1 s").arg(ms / 1000);
  return QStringLiteral("%1 min %2 s").arg(ms / 60'000).arg(ms / 1000 % 60);
}

}  // namespace

ViewerWindow::ViewerWindow(qel::QtBroadcastMaps& maps, QWidget* parent)
    : QMainWindow(parent),
      maps_(maps),
      view_(new MapView(this)),
      resolutions_(new QComboBox(this)),
      startStop_(new QPushButton(this)),
      status_(new QLabel(this)) {
  setWindowTitle(tr("QELMaps viewer"));
  setCentralWidget(view_);

  auto* controls = new QToolBar(this);
  controls->setMovable(false);
  controls->setFloatable(false);
  controls->setContentsMargins(6, 2, 6, 2);
  controls->addWidget(new QLabel(tr("Resolution "), controls));
  resolutions_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
  resolutions_->setMinimumContentsLength(11);
  controls->addWidget(resolutions_);
  auto* spacer = new QWidget(controls);
  spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
  controls->addWidget(spacer);
  startStop_->setMinimumWidth(90);
  controls->addWidget(startStop_);
  addToolBar(Qt::TopToolBarArea, controls);
  status_->setContentsMargins(6, 0, 6, 0);
  statusBar()->addWidget(status_, 1);
  statusBar()->setSizeGripEnabled(false);

  // The last picture, not only the live one: the map stays on screen
  // through an outage, dimmed, with its age.
  connect(&maps_, &qel::QtBroadcastMaps::lastImageChanged, this, &ViewerWindow::showImage);
  connect(&maps_, &qel::QtBroadcastMaps::staleChanged, this, &ViewerWindow::updateStatus);
  connect(&maps_, &qel::QtBroadcastMaps::resolutionsChanged, this, &ViewerWindow::fillResolutions);
  connect(&maps_, &qel::QtBroadcastMaps::resolutionChanged, this,
          [this] { fillResolutions(maps_.resolutions()); });
  connect(&maps_, &qel::QtBroadcastMaps::receivingChanged, this, &ViewerWindow::updateStatus);
  connect(&maps_, &qel::QtBroadcastMaps::hasMapDataChanged, this, &ViewerWindow::updateStatus);
  connect(&maps_, &qel::QtBroadcastMaps::statusChanged, this, &ViewerWindow::updateStatus);
  // activated: only the user's choices, not the refills below.
  connect(resolutions_, &QComboBox::activated, this, &ViewerWindow::chooseResolution);
  connect(startStop_, &QPushButton::clicked, this, [this] {
    if (maps_.isReceiving())
      maps_.stop();
    else
      maps_.start();
  });
  // The age of the picture moves on by itself.
  connect(&ticker_, &QTimer::timeout, this, &ViewerWindow::updateStatus);
  ticker_.start(250);

  fillResolutions(maps_.resolutions());
  showImage(maps_.lastImage());
  // The map's own size (1024 by 768) when the screen allows.
  resize(sizeHint());
}

QString ViewerWindow::statusText() const { return status_->text(); }

void ViewerWindow::showImage(const QImage& image) {
  view_->setImage(image);
  updateStatus();
}

void ViewerWindow::fillResolutions(const QList<QSize>& resolutions) {
  const QSize chosen = maps_.resolution();
  resolutions_->clear();
  for (const QSize& size : resolutions) resolutions_->addItem(sizeText(size), size);
  // Without a choice of its own the service shows the first one listed.
  const int index = resolutions_->findData(chosen);
  resolutions_->setCurrentIndex(index >= 0 ? index : 0);
  resolutions_->setEnabled(!resolutions.isEmpty());
  updateStatus();
}

void ViewerWindow::chooseResolution(int index) {
  if (index >= 0) maps_.setResolution(resolutions_->itemData(index).toSize());
}

void ViewerWindow::updateStatus() {
  // What the library says of the connection: why there is no map, and when
  // it tries again.
  QString text = maps_.statusText();
  // The age on the wall clock: a picture from an earlier run tells its own.
  const QDateTime received = maps_.lastImageReceivedAt();
  const qint64 age = received.isValid() ? std::max<qint64>(0, received.msecsTo(QDateTime::currentDateTime())) : 0;
  if (received.isValid()) {
    text += tr("  ·  picture %1, %2 old").arg(sizeText(view_->image().size()), ageText(age));
  }
  view_->setStale(received.isValid() && maps_.isStale() ? tr("updated %1 ago").arg(ageText(age)) : QString());
  status_->setText(text);
  startStop_->setText(maps_.isReceiving() ? tr("Stop") : tr("Start"));
  view_->setPlaceholder(maps_.isReceiving() && maps_.hasMapData() ? tr("Waiting for the map…") : text);
}

}  // namespace qelviewer
