#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/win32_error.hpp"

namespace {

using namespace linux_backend;

// The codes the program's messages and exit codes depend on.
TEST(Win32Error, OpenFailuresTheProgramReportsByName) {
    EXPECT_EQ(win32_error_from_open_errno(ENOENT), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(win32_error_from_open_errno(ENXIO), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(win32_error_from_open_errno(EACCES), ERROR_ACCESS_DENIED);
    EXPECT_EQ(win32_error_from_open_errno(EPERM), ERROR_ACCESS_DENIED);
    EXPECT_EQ(win32_error_from_open_errno(EBUSY), ERROR_SHARING_VIOLATION);
    // A node whose driver knows no SCSI ioctl: the pass-through is not offered (exit code 9).
    EXPECT_EQ(win32_error_from_io_errno(ENOTTY), ERROR_INVALID_FUNCTION);
}

TEST(Win32Error, ADeviceThatGoesAwayDuringARunIsNoMissingFile) {
    EXPECT_EQ(win32_error_from_io_errno(ENODEV), kErrorDevNotExist);
    EXPECT_EQ(win32_error_from_io_errno(EBUSY), ERROR_BUSY);
    EXPECT_EQ(win32_error_from_io_errno(EIO), ERROR_IO_DEVICE);
    EXPECT_EQ(win32_error_from_io_errno(EHWPOISON), ERROR_GEN_FAILURE);
}

TEST(Win32Error, OnlySenseRelatedStatusLetsTheCommandCount) {
    EXPECT_EQ(win32_error_from_sg_status(0x00, 0x00), ERROR_SUCCESS);
    EXPECT_EQ(win32_error_from_sg_status(0x00, 0x08), ERROR_SUCCESS); // DRIVER_SENSE
    EXPECT_EQ(win32_error_from_sg_status(0x00, 0x28), ERROR_SUCCESS); // suggestion bits aside
    EXPECT_EQ(win32_error_from_sg_status(0x03, 0x00), ERROR_SEM_TIMEOUT);
    EXPECT_EQ(win32_error_from_sg_status(0x00, 0x06), ERROR_SEM_TIMEOUT);
    EXPECT_EQ(win32_error_from_sg_status(0x01, 0x08), kErrorDevNotExist);
    EXPECT_EQ(win32_error_from_sg_status(0x02, 0x00), ERROR_BUSY);
    EXPECT_EQ(win32_error_from_sg_status(0x07, 0x08), ERROR_IO_DEVICE); // DID_ERROR with sense
    EXPECT_EQ(win32_error_from_sg_status(0x08, 0x00), ERROR_IO_DEVICE); // DID_RESET
    EXPECT_EQ(win32_error_from_sg_status(0x00, 0x04), ERROR_IO_DEVICE); // DRIVER_ERROR
}

} // namespace
