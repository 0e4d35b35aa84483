// Umbrella header: everything public of the ringrec library.
#ifndef RINGREC_RINGREC_H
#define RINGREC_RINGREC_H

#include <ringrec/records.h>
#include <ringrec/app_interface.h>
#include <ringrec/entry_names.h>
#include <ringrec/block.h>
#include <ringrec/irf.h>
#include <ringrec/oem.h>
#include <ringrec/fs_io.h>
#include <ringrec/fs_db.h>
#include <ringrec/fs_mp4.h>
#include <ringrec/audio.h>
#include <ringrec/fs_app.h>
#include <ringrec/recovery.h>

#endif
