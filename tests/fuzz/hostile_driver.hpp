// A backend of the Win32 seam whose driver stack answers every request with bytes from the fuzz
// input: the SCSI status, the sense data, the ATA registers, the data-in bytes, the transfer
// length it reports and the bytes it returns. It behaves as the I/O manager lets a driver behave:
// METHOD_BUFFERED requests are copied in and only the returned bytes are copied back, and the
// data phase of a DIRECT request moves no more than the request's own DataTransferLength.
//
// Before it moves a data phase it checks, with AddressSanitizer, that the DataBuffer and
// DataTransferLength of the request describe memory the program owns: a real driver would move
// that many bytes whatever the buffer's true size, so a request that claims more is a fault of
// the program even when this input would not fill it.
//
// Each DeviceIoControl takes one answer from the input, in call order:
//   byte    bit 0: the call fails, with the error the next byte picks
//           bit 1: the reported transfer length is the next 32 bits as they are
//           bit 2: the bytes returned are the next 16 bits (cut to the output size)
//   then, by control code:
//   SCSI pass-through: ScsiStatus, the sense length and its bytes, the data length (16 bits)
//     and its bytes;
//   ATA pass-through: the 8 bytes of CurrentTaskFile, the 8 of PreviousTaskFile, the data
//     length (16 bits) and its bytes;
//   IOCTL_SCSI_GET_ADDRESS: 8 bytes;
//   IOCTL_SCSI_MINIPORT: a length (16 bits) and that many bytes written from the buffer's start.
// Without bit 1 the reported transfer length is the number of bytes moved.
#pragma once

#include "fuzz_input.hpp"

namespace hostile {

// Starts a run: the answers come from input (which must outlive the run); the handle table and
// the last-error value are cleared.
void begin(fuzz::Input& input);

// false: a reported transfer length above the request's own is cut to it, as a port driver does.
void set_over_report(bool allowed);

} // namespace hostile
