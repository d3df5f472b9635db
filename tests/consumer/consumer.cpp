// Reads a frame file and prints its size and version, through the public headers only.
#include "DGlobal.h"
#include "DImage.h"

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: consumer FRAME\n";
        return 2;
    }
    norvexa::imglib::DImage frame;
    norvexa::imglib::readImage(frame, argv[1], 0);
    std::cout << "norvexa " << norvexa::imglib::version() << ": " << frame.width() << " x " << frame.height() << "\n";
    return 0;
}
