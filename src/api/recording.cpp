// Nothing is recorded yet: the configuration is kept, no file is made, and every call returns at once. To
// come are the file with its device node, the three streams with their properties, and recording by hand.
#include "api/recording.h"

void _tqcam_cap_replay_start(tqcam_dev_t *) {}
void _tqcam_cap_replay_stop(tqcam_dev_t *) {}
void rec_save_frames(tqcam_dev_t *, const void *, uint32_t, uint32_t, const tqcam_frame_info_t *) {}
void rec_save_image(tqcam_dev_t *, int, const void *, uint32_t) {}
void rec_prop_int(tqcam_dev_t *, const char *, uint64_t) {}
void rec_prop_general(tqcam_dev_t *, const char *, const void *, uint32_t) {}
void rec_auto_intg(tqcam_dev_t *, uint32_t) {}
void rec_close(tqcam_dev_t *) {}
