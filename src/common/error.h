// The calling thread's reason for the last failure (TarnLastError). Library
// code records a reason where it learns it; the exported functions clear the
// record on entry.
#pragma once

#include <cstdint>
#include <string>

#include <tarn/tarn_device.h>

namespace tarn {

// Replaces the thread's record. `message` is the whole sentence a person
// reads; empty takes the code's fixed sentence.
void SetError(TarnErrorCode code, std::string message = {});
// The record, for setters that add a detail after SetError.
TarnError &CurrentError();
void ClearError();

}  // namespace tarn
