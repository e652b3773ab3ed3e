// A small program for the tests of Process: says that it is there, gives each line back, and ends
// with the status that "exit N" names, or with 7 at the end of its input.
#include <cstdlib>
#include <iostream>
#include <string>

int main() {
  const char* variable = std::getenv("QZ_ECHO");
  std::cout << "ready " << (variable ? variable : "") << "\r\n\n" << std::flush;
  for (std::string line; std::getline(std::cin, line);) {
    if (line.starts_with("exit ")) return std::stoi(line.substr(5));
    if (line == "complain") std::cerr << "complaint" << std::endl;
    std::cout << line << std::endl;
    if (!std::cout) return 9;
  }
  return 7;
}
