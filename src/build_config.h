/// The program's name and version, and the values that whoever builds the program may want to change, each with its default. CMake
/// passes the build options of the same names (cmake -D VANTRIC_WEB_SITE=...) as definitions; an option left empty keeps the default
/// given here.
#pragma once

#ifndef VANTRIC_WEB_SITE
#define VANTRIC_WEB_SITE "https://vantric.example/"
#endif

#ifndef VANTRIC_CONTACT_ADDRESS
#define VANTRIC_CONTACT_ADDRESS "contact@vantric.example"
#endif

#ifndef VANTRIC_CRASH_MAILBOX
#define VANTRIC_CRASH_MAILBOX "crashes@vantric.example"
#endif

namespace BuildConfig {

inline constexpr const char* APP_NAME = "Vantric";
inline constexpr const char* APP_VERSION = "1.15";

inline constexpr const char* WEB_SITE = VANTRIC_WEB_SITE;                // behind a link of the about text
inline constexpr const char* CONTACT_ADDRESS = VANTRIC_CONTACT_ADDRESS;  // likewise, as a mailto: link
inline constexpr const char* CRASH_MAILBOX = VANTRIC_CRASH_MAILBOX;      // receives crash reports, if the user sends them
inline constexpr const char* ABOUT_YEAR = "2026";                        // in the about text

}  // namespace BuildConfig
