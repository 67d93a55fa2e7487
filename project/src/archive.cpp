#include <zo/project/archive.h>
