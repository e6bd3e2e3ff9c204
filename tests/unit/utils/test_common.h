// What the foundation's tests share: the framework, the support helpers and
// the system headers most of them use.
#pragma once
#include "support/background.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/probes.h"
#include "support/temp_dir.h"
#include "support/thrown.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

using namespace testsupport;
