import QtQuick 2.15
import "KepStyle.js" as Style

// A square icon of this folder by name: the SVG where Qt reads SVG, otherwise its PNG twin.
Image {
    id: icon
    property string name
    property int size: Style.iconSize

    width: size
    height: size
    sourceSize.width: size
    sourceSize.height: size
    fillMode: Image.PreserveAspectFit
    source: name === "" ? "" : "images/" + name + ".svg"
    onStatusChanged: {
        if (status === Image.Error && source.toString().endsWith(".svg"))
            source = "images/" + name + ".png";
    }
}
