// The image is opened with the rights of the user who asked for the write (pkexec's
// PKEXEC_UID), never root's, so the writer cannot be used to read a file that user could
// not. Only a regular file reached without links is taken.
#pragma once
#include <string>

#include "file_descriptor.h"

FileDescriptor open_image_as_invoking_user(const std::string& path);
