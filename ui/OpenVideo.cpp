#include "MainWindow.h"
