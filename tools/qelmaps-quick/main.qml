// The moving map filling a window: the live picture with its aspect kept (a
// line of text while there is none), and the state of reception below it.
import QtQuick
import QtQuick.Window
import QELMaps 1.0

Window {
    id: window
    width: 1024
    height: 768
    visible: true
    color: "#121c26"
    title: "Moving map"

    BroadcastMaps {
        id: maps
        objectName: "maps"
    }

    MapItem {
        id: map
        objectName: "map"
        anchors.fill: parent
        maps: maps
        placeholder: maps.hasMapData ? "Waiting for the map" : "No map data"
    }

    Text {
        anchors { left: parent.left; bottom: parent.bottom; margins: 8 }
        color: "#d0d8e0"
        style: Text.Outline
        styleColor: "#121c26"
        text: (maps.receiving ? "Receiving" : "Stopped")
              + (maps.resolution.width > 0 ? "  " + maps.resolution.width + "x" + maps.resolution.height : "")
    }
}
