// Files that the library writes, as the program looks at them beforehand.
#ifndef ZEBCTL_FILES_H
#define ZEBCTL_FILES_H

#include <string>

// Whether something could be added to a file without joining a last line that nobody has ended.
bool EndsWithItsLine(const std::string &path);

#endif
