// libgphoto2 in test processes that run under LeakSanitizer.
//
// libgphoto2 loads its camera and port drivers for each detection and each opening, and
// unloads them afterwards. Memory a driver keeps in static variables looks leaked once the
// driver is unmapped, and the allocating frames can no longer be named, so no suppression
// could tell them from a leak of ours. Tests that use the MTP client therefore keep every
// driver loaded; the few allocations libgphoto2 and libusb really never free are suppressed
// by name in every test executable that links this helper.
#ifndef QRB_TESTING_GPHOTO2_H
#define QRB_TESTING_GPHOTO2_H

#include <string>

namespace qrbtest {

// Loads every libgphoto2 driver once, for the life of the process. Call before the MTP client
// is first used; later calls do nothing. The number of drivers kept.
int KeepCameraDriversLoaded();

// What every camera test does first: keeps the drivers loaded, and points HOME at a folder
// "home" under scratch (made here), so libgphoto2's settings file lands in the test's own
// folder and never in the user's.
void PrepareCameraTest(const std::string& scratch);

}  // namespace qrbtest

#endif
