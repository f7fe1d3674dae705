#include "platform/ve_colors.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/ve_out.h"

namespace
{

struct rgb {
    int red, green, blue; // 0 to 255
};

enum class depth { none, ansi16, indexed256, direct };

/// What the terminal says of itself in the environment.
depth terminal_depth()
{
    const char *term = getenv("TERM");
    if (term == nullptr || term[0] == '\0' || strcmp(term, "dumb") == 0)
        return depth::none;
    const char *colorterm = getenv("COLORTERM");
    if (colorterm != nullptr && (strcmp(colorterm, "truecolor") == 0 || strcmp(colorterm, "24bit") == 0))
        return depth::direct;
    if (strstr(term, "direct") != nullptr)
        return depth::direct;
    return strstr(term, "256") != nullptr ? depth::indexed256 : depth::ansi16;
}

rgb to_rgb(const hsv_color &color)
{
    const double saturation = std::min<int>(color.saturation, 100) / 100.0;
    const double value = std::min<int>(color.value, 100) / 100.0;
    const double sector = color.hue % 360 / 60.0;
    const auto channel = [&](int n) {
        const double k = n + sector < 6 ? n + sector : n + sector - 6;
        const double level = value - value * saturation * std::clamp(std::min(k, 4 - k), 0.0, 1.0);
        const int whole = static_cast<int>(level * 255);
        return level * 255 - whole < 0.5 ? whole : whole + 1;
    };
    return {channel(5), channel(3), channel(1)};
}

int distance(const rgb &a, const rgb &b)
{
    const auto square = [](int n) { return n * n; };
    return square(a.red - b.red) + square(a.green - b.green) + square(a.blue - b.blue);
}

constexpr std::array<rgb, 16> ansi_colors{{{0, 0, 0},
                                           {205, 0, 0},
                                           {0, 205, 0},
                                           {205, 205, 0},
                                           {0, 0, 238},
                                           {205, 0, 205},
                                           {0, 205, 205},
                                           {229, 229, 229},
                                           {127, 127, 127},
                                           {255, 0, 0},
                                           {0, 255, 0},
                                           {255, 255, 0},
                                           {92, 92, 255},
                                           {255, 0, 255},
                                           {0, 255, 255},
                                           {255, 255, 255}}};

int nearest_ansi(const rgb &color)
{
    const auto nearer = [&](const rgb &a, const rgb &b) { return distance(a, color) < distance(b, color); };
    return static_cast<int>(std::min_element(ansi_colors.begin(), ansi_colors.end(), nearer) - ansi_colors.begin());
}

/// The nearest of the 6x6x6 cube (16 to 231) and the greys (232 to 255).
int nearest_indexed(const rgb &color)
{
    const auto step = [](int level) { return level < 48 ? 0 : level < 115 ? 1 : (level - 35) / 40; };
    const auto level = [](int n) { return n == 0 ? 0 : 55 + n * 40; };
    const int r = step(color.red);
    const int g = step(color.green);
    const int b = step(color.blue);
    const rgb cube{level(r), level(g), level(b)};
    const int grey_index = std::clamp(((color.red + color.green + color.blue) / 3 - 3) / 10, 0, 23);
    const int grey_level = 8 + 10 * grey_index;
    const rgb grey{grey_level, grey_level, grey_level};
    return distance(grey, color) < distance(cube, color) ? 232 + grey_index : 16 + 36 * r + 6 * g + b;
}

} // namespace

bool ve_colors_known()
{
    return terminal_depth() != depth::none;
}

std::string ve_colors_sequence(const hsv_color &color)
{
    const rgb target = to_rgb(color);
    char text[40] = "";
    switch (terminal_depth()) {
    case depth::none:
        break;
    case depth::ansi16: {
        const int index = nearest_ansi(target);
        snprintf(text, sizeof text, "\033[%dm", index < 8 ? 30 + index : 90 + index - 8);
        break;
    }
    case depth::indexed256:
        snprintf(text, sizeof text, "\033[38;5;%dm", nearest_indexed(target));
        break;
    case depth::direct:
        snprintf(text, sizeof text, "\033[38;2;%d;%d;%dm", target.red, target.green, target.blue);
        break;
    }
    return text;
}

void ve_colors_set(int index)
{
    static constexpr const char *sequences[] = {"", "\033[31m", "\033[32m", "\033[36m"};
    if (index > 0 && index < 4 && ve_out_is_terminal() && ve_colors_known())
        ve_out_write(sequences[index], strlen(sequences[index]));
}

void ve_colors_set_hsv2(const hsv_color &color)
{
    if (!ve_out_is_terminal())
        return;
    // The text of the last colour is kept: a listing sets the same one for every row.
    static std::optional<std::pair<hsv_color, std::string>> last;
    if (!last || last->first != color)
        last = {color, ve_colors_sequence(color)};
    ve_out_write(last->second.data(), last->second.size());
}

void ve_colors_reset()
{
    if (ve_out_is_terminal() && ve_colors_known())
        ve_out_write("\033[0m", 4);
}
