#pragma once

#include <QMainWindow>
#include <QTimer>

class QComboBox;
class QLabel;
class QPushButton;

namespace qel {
class QtBroadcastMaps;
}

namespace qelviewer {

class MapView;

// The viewer's window: the live map, a resolution picker filled from the
// service, a start/stop button and a status line saying whether the map is
// being received and how old the shown picture is.
//
// Threading: a widget; GUI thread only. The maps object must outlive it.
//
//   qel::QtBroadcastMaps maps;
//   qelviewer::ViewerWindow window(maps);
//   window.show();
//   maps.start();
class ViewerWindow : public QMainWindow {
  Q_OBJECT

 public:
  explicit ViewerWindow(qel::QtBroadcastMaps& maps, QWidget* parent = nullptr);

  MapView* mapView() const { return view_; }
  QString statusText() const;

 private:
  void showImage(const QImage& image);
  void fillResolutions(const QList<QSize>& resolutions);
  void chooseResolution(int index);
  void updateStatus();

  qel::QtBroadcastMaps& maps_;
  MapView* view_;
  QComboBox* resolutions_;
  QPushButton* startStop_;
  QLabel* status_;
  QTimer ticker_;
};

}  // namespace qelviewer
