// The program's entry: headless modes by command line, otherwise the window.
#pragma once

namespace Entry {
int main(int argc, char** argv);
}
