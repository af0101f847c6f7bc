import QtQuick 2.15
import "KepStyle.js" as Style

// Above the lists when not every product was answered by the service: says why, and how many
// of the products shown come from the cache of an earlier check.
Rectangle {
    id: banner
    objectName: "statusBanner"

    property string reason
    property int productCount: 0
    property int cachedCount: 0
    property int uncheckedCount: 0
    // Of the unchecked ones, those whose request a cancel cut short.
    property int cancelledCount: 0

    // "1 of 1 product is", "1 of 4 products is", "2 of 4 products are"
    function productsOf(count) {
        var part = productCount === 1 ? qsTr("%1 of 1 product").arg(count) : qsTr("%1 of %2 products").arg(count).arg(productCount);
        return count === 1 ? qsTr("%1 is").arg(part) : qsTr("%1 are").arg(part);
    }

    visible: cachedCount + uncheckedCount > 0
    implicitWidth: Style.contentMaxWidth
    implicitHeight: column.implicitHeight + 2 * Style.padding
    radius: Style.radius
    color: Style.warningBackground
    border.color: Style.warningBorder
    border.width: Style.borderWidth

    Column {
        id: column
        x: Style.padding
        y: Style.padding
        width: parent.width - 2 * Style.padding
        spacing: Style.spacingSmall

        Text {
            objectName: "bannerHeadline"
            width: parent.width
            text: banner.cancelledCount > 0 && banner.cancelledCount === banner.cachedCount + banner.uncheckedCount
                  ? qsTr("The check was cancelled before every product was answered.")
                  : banner.reason.length > 0 ? qsTr("The service could not be reached: %1.").arg(banner.reason)
                                             : qsTr("The service could not be reached.")
            color: Style.warningText
            font.pixelSize: Style.fontNormal
            font.bold: true
            wrapMode: Text.Wrap
        }
        Text {
            objectName: "bannerDetail"
            width: parent.width
            text: {
                var parts = [];
                if (banner.cachedCount > 0)
                    parts.push(qsTr("%1 shown from the cache of an earlier check.").arg(banner.productsOf(banner.cachedCount)));
                if (banner.uncheckedCount > 0)
                    parts.push(qsTr("%1 not checked.").arg(banner.productsOf(banner.uncheckedCount)));
                return parts.join(" ");
            }
            color: Style.textPrimary
            font.pixelSize: Style.fontNormal
            wrapMode: Text.Wrap
        }
    }
}
