/*
 * The real-time voice mixer: 32 voices of up to four layers each, fed through a
 * lock-free ring of 512 commands.
 *
 * Thread contract (one producer, one consumer per mixer):
 *   producer (control side, one thread at a time): tb_mixer_push, tb_mixer_set_master
 *   consumer (render thread):                       tb_mixer_render
 *   any thread:                                     tb_mixer_get_master and the counters
 *   owner only, with no render or push under way:    tb_mixer_create, tb_mixer_destroy
 * Neither push nor render allocates, frees, locks or blocks.
 */
#ifndef TOBRIN_MIXER_H
#define TOBRIN_MIXER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One layer of a voice. The memory belongs to the caller (a loaded pack) and
 * must outlive every voice that reads it. */
typedef struct TBSample {
    const float* left;  /* left (or only) channel; NULL marks an empty layer */
    const float* right; /* right channel; NULL means mono: left is read for both */
    uint32_t frames;
} TBSample;

enum {
    TB_COMMAND_START = 1,       /* start a voice with this tag */
    TB_COMMAND_SET_WEIGHTS = 2, /* crossfade the layer gains of the voice with this tag */
    TB_COMMAND_RELEASE_ALL = 3  /* fade every voice out over 6 ms */
};

/* The unit of the command ring, copied whole in and out. Producers start from
 * an all-zero command. */
typedef struct TBCommand {
    uint32_t type;
    uint32_t tag;       /* chosen by the producer, never 0 */
    TBSample layers[4]; /* unused entries all zero */
    float weights[4];   /* linear gain of each layer */
    float pan;          /* -1 (left) ... +1 (right), clamped */
    float rate;         /* playback rate; only 0.25 < rate < 4 is accepted, else 1 */
} TBCommand;

/* Two cache lines on the 64-bit targets Tobrin runs on; the ring's size and
 * the cost of a push are counted in these. */
#ifdef __cplusplus
static_assert(sizeof(TBCommand) == 128, "a command is 128 bytes");
#else
_Static_assert(sizeof(TBCommand) == 128, "a command is 128 bytes");
#endif

typedef struct TBMixer TBMixer;

/* A sample rate <= 0 means 48000; a crossfade <= 0 means 4 ms. NULL when out of memory. */
TBMixer* tb_mixer_create(float sampleRate, float crossfadeMs);
void tb_mixer_destroy(TBMixer* mixer);

/* Producer. False (and the command is lost and counted) when the ring is full. */
bool tb_mixer_push(TBMixer* mixer, const TBCommand* command);

/* Producer. The master gain is clamped to [0, 4] and ramped across the next block. */
void tb_mixer_set_master(TBMixer* mixer, float gain);
float tb_mixer_get_master(const TBMixer* mixer);

/* Consumer. Applies the queued commands, then overwrites the block with the mix.
 * The output is mono when right is NULL or equal to left. */
void tb_mixer_render(TBMixer* mixer, float* left, float* right, uint32_t frames);

uint32_t tb_mixer_active_voices(const TBMixer* mixer);
uint64_t tb_mixer_started_voices(const TBMixer* mixer);
uint64_t tb_mixer_rendered_frames(const TBMixer* mixer);
uint64_t tb_mixer_dropped_commands(const TBMixer* mixer);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TOBRIN_MIXER_H */
