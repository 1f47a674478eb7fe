// The geometry truth file (truth-geometry.tsv), one page a line, as the
// quality programs read it: file, skew ("-" where the page has no lines),
// sheet box, frame sides (letters L, T, R, B or "-"), content box, and
// "text" where the page holds upright text lines. Boxes are left, top,
// right, bottom in the page's pixels as displayed.
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quarvel/scan.h"

namespace quality {

struct GeometryTruth {
    std::string file;
    bool hasSkew = false;
    double skew = 0;
    RECT sheet{};
    unsigned sides = 0;  // QUARVEL_SIDE_*
    RECT content{};
    bool text = false;  // upright text lines: orientation is scored
};

inline std::vector<GeometryTruth> ReadGeometryTruth(const std::string &path) {
    std::vector<GeometryTruth> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream s(line);
        GeometryTruth t;
        std::string skew, sides, text;
        s >> t.file >> skew >> t.sheet.left >> t.sheet.top >> t.sheet.right >> t.sheet.bottom >> sides >>
            t.content.left >> t.content.top >> t.content.right >> t.content.bottom >> text;
        if (!s) continue;
        t.hasSkew = skew != "-";
        if (t.hasSkew) t.skew = std::atof(skew.c_str());
        for (char c : sides) {
            if (c == 'L') t.sides |= QUARVEL_SIDE_LEFT;
            if (c == 'T') t.sides |= QUARVEL_SIDE_TOP;
            if (c == 'R') t.sides |= QUARVEL_SIDE_RIGHT;
            if (c == 'B') t.sides |= QUARVEL_SIDE_BOTTOM;
        }
        t.text = text == "text";
        out.push_back(t);
    }
    return out;
}

}  // namespace quality
