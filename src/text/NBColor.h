// NBColor: an 8-bit-per-channel RGBA colour, the value of the text and background colour styles.
//
// Styled text only compares, stores and writes colours, so it keeps them in this plain value and needs no
// graphics library; the rich-text conversions (richtext/NBStyledStringRichText.h) turn them into QColor and
// back. A default-constructed colour is invalid: it stands for "no colour" (an unreadable colour value, or
// the any-colour styles of queries).
#pragma once

#include <QMetaType>
#include <QtGlobal>

#include <algorithm>

class NBColor {
public:
    constexpr NBColor() = default;
    // Each channel from 0 to 255; values outside are clamped.
    constexpr NBColor(int red, int green, int blue, int alpha = 255)
        : red_(channel(red)), green_(channel(green)), blue_(channel(blue)), alpha_(channel(alpha)),
          valid_(true) {}

    // 0xAARRGGBB, the packing QRgb uses.
    static constexpr NBColor fromRgba(quint32 rgba) {
        return NBColor(int((rgba >> 16) & 0xFF), int((rgba >> 8) & 0xFF), int(rgba & 0xFF), int(rgba >> 24));
    }
    constexpr quint32 rgba() const {
        return (quint32(alpha_) << 24) | (quint32(red_) << 16) | (quint32(green_) << 8) | quint32(blue_);
    }

    constexpr bool isValid() const { return valid_; }
    constexpr int red() const { return red_; }
    constexpr int green() const { return green_; }
    constexpr int blue() const { return blue_; }
    constexpr int alpha() const { return alpha_; }

    constexpr bool operator==(const NBColor& other) const = default;

private:
    static constexpr quint8 channel(int value) { return quint8(std::clamp(value, 0, 255)); }

    quint8 red_ = 0;
    quint8 green_ = 0;
    quint8 blue_ = 0;
    quint8 alpha_ = 0;
    bool valid_ = false;
};

Q_DECLARE_METATYPE(NBColor)
