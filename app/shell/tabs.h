// The tabs that exist, in the window's order: the one table the window and the screenshot
// mode both build from.
#pragma once
#include <span>

class QWidget;
class QuillmateFlasherApp;

struct TabEntry {
    const char* label;  // the tab's label in the window
    const char* image;  // the screenshot's file name, without ".png"
    QWidget* (*create)(QuillmateFlasherApp* app);
};

std::span<const TabEntry> tabTable();
