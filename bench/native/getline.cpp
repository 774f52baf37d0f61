// What reading the override file costs at the least: its lines, counted.
#include <fstream>
#include <string>

int main(int, char* argv[]) {
    std::ifstream file(argv[1]);
    std::string line;
    unsigned long lines = 0;
    while (std::getline(file, line)) {
        ++lines;
    }
    return lines == 0 ? 1 : 0;
}
