#pragma once

/// Who sent a request, as far as its signature and its address tell.
struct Caller {
    enum Signature {
        None, ///< No Authorization field with a scheme.
        Wrong, ///< One that does not hold, or several. Never better than none.
        Verified, ///< The signature of a user.
    };

    Signature signature = None;
    bool local = false; ///< The client is on this device.

    bool hasCredentials() const { return signature != None; }
    bool isWrong() const { return signature == Wrong; }
    bool isVerified() const { return signature == Verified; }
};
