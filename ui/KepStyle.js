.pragma library
// The one place for the look of the plug-in's controls: a host restyles them here.

// Colours
var windowBackground = "#f3f4f6";
var cardBackground = "#ffffff";
var cardBorder = "#d8dde3";
var textPrimary = "#1f2328";
var textSecondary = "#5b6470";
var textMuted = "#8c959f";
var accent = "#1f6feb";
var link = "#0a58ca";
var badgeBackground = "#dff3e4";
var badgeBorder = "#9fd8ad";
var badgeText = "#1a7f37";
var sectionRule = "#c3cad3";
var transparent = "transparent";
var warningBackground = "#fff8e1";
var warningBorder = "#e3c36b";
var warningText = "#7a4d00";
var errorText = "#b42318";

// Sizes, in pixels
var spacingSmall = 4;
var spacing = 8;
var padding = 14;
var radius = 6;
var borderWidth = 1;
var ruleHeight = 2;
var iconSize = 32;
var badgeIconSize = 14;
var stateIconSize = 64;
var badgePadding = 8;
var badgeHeight = 22;
var countMinWidth = 24;

// Font pixel sizes
var fontSmall = 12;
var fontNormal = 14;
var fontTitle = 16;
var fontSection = 18;
var fontState = 20;

// Text widths beyond which a line wraps (pixels); a card never grows wider than this.
var contentMaxWidth = 760;

// Size in binary units (1 KiB = 1024 bytes): bytes stay bytes, then one decimal below ten of a unit.
function humanSize(text) {
    var bytes = Number(String(text).trim());
    if (String(text).trim() === "" || !isFinite(bytes) || bytes < 0)
        return "";
    var units = ["bytes", "KiB", "MiB", "GiB", "TiB"];
    var unit = 0;
    while (bytes >= 1024 && unit < units.length - 1) {
        bytes /= 1024;
        ++unit;
    }
    if (unit === 0)
        return bytes + " " + units[0];
    var tenths = Math.round(bytes * 10) / 10;
    return (tenths < 10 ? tenths.toFixed(1) : Math.round(bytes).toString()) + " " + units[unit];
}
