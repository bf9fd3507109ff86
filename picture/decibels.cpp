// decibels: prints how far two PNG pictures differ, as the peak signal to noise ratio in decibels.
#include "picture/png_file.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: decibels ONE.png OTHER.png\n";
        return 1;
    }
    try {
        std::cout << Tavrin::SplatPicture::peakSignalToNoise(Tavrin::SplatPicture::readPng(argv[1]),
                                                             Tavrin::SplatPicture::readPng(argv[2]))
                  << "\n";
    } catch (const std::exception& error) {
        std::cerr << "decibels: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
