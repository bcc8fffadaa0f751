/*
 * The contract between a scanner plugin and the process that loads it.
 *
 * A plugin is a shared library that speaks the command protocol of one scanner model. tvkintif picks it by
 * the USB product id, loads it, and passes a front-end's bytes to it; whatever crosses the USB bus, the
 * plugin decides. It exports the four functions below, with these unmangled names.
 *
 * Order of calls: load, interpreter_ctor; if that returned non-zero, any number of interpreter_writer and
 * interpreter_reader in any order, then interpreter_dtor; unload. There are two exceptions. A plugin that
 * refused is unloaded without interpreter_dtor. And when a device was lost and is opened again, the plugin is
 * not stopped before it is started again: a second interpreter_ctor has to forget what the first one left.
 *
 * Threads: the process makes all calls from one thread, never one while another is under way. A plugin may
 * have threads of its own; they must have ended when interpreter_dtor returns, because the code that they run
 * is unmapped next.
 *
 * Time: a call may take as long as it needs. The front-end waits for it, and so does everything else that the
 * process does, including its end.
 *
 * The process: standard output belongs to the front-end, which reads one line from it at the start and
 * perhaps nothing afterwards: a plugin that fills that pipe waits for ever. Signals 1, 2 and 15 have
 * handlers, which are to stay. A crash or an exit() ends the process and with it the front-end's session. No
 * C++ exception may leave any of the functions.
 *
 * The device: its interface is claimed in the alternate setting that it was in; none is selected.
 * Configuration 1 was set if the interface was looked for in another configuration than the active one. No
 * device is reset today, neither when it is opened nor when it is closed.
 *
 * Environment: before the library is loaded, these four variables are set, each to TARVIK_FIRMWARE_DIR (it
 * ends in a slash); any value that they had is replaced:
 *     GLIMMERON_FIRMWARE_DIR  QUBAN_FIRMWARE_DIR  MORA_FIRMWARE_DIR  QUBAN_FW_DIR
 */
#ifndef TARVIK_INTERPRETER_H
#define TARVIK_INTERPRETER_H

/* Where the firmware files of all models are installed. */
#define TARVIK_FIRMWARE_DIR "/usr/share/tarvik/"

/* Keeps a function visible in a library that hides the rest (-fvisibility=hidden). */
#define TARVIK_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One bulk transfer between the plugin and the device, made by the process on the plugin's behalf.
 *
 * `buffer` is the plugin's and is not kept. `length` is the number of bytes to move at most, greater than 0;
 * a read whose length is not a multiple of the endpoint's packet size fails when the device sends more.
 * Linux lends all USB programs together no more than 16 MiB (usbfs_memory_mb), so a single transfer of that
 * size moves nothing: cut large ones, at a multiple of the packet size.
 *
 * Returns how many bytes were moved, which may be fewer than `length`; 0 when nothing could be moved: the
 * device is gone, it stalled (the halt has been cleared by then, and the next transfer may succeed), or it
 * was silent for 60 seconds. Treat a negative number like 0.
 *
 * May be called from any thread of the plugin, from the beginning of interpreter_ctor to the end of
 * interpreter_dtor, but by one thread at a time.
 */
typedef int (*tarvik_transfer)(void* buffer, int length);

/*
 * Starts the plugin. `reader` takes bytes from the device, `writer` passes bytes to it; neither is null, both
 * stay valid until interpreter_dtor returns.
 *
 * Returns non-zero when the plugin is ready, 0 when it refuses. Whatever it acquired before it refused it has
 * to give back itself, for interpreter_dtor is not called then.
 */
TARVIK_EXPORT int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer);

/*
 * Stops the plugin. The device is still open, so that it can be parked. Afterwards the plugin has no threads,
 * no open descriptors and no use for the transfers.
 */
TARVIK_EXPORT void interpreter_dtor(void);

/*
 * Fills `buffer` with the next `length` bytes that the front-end is to receive. The buffer is the process's;
 * it may be written up to `length`, and not be touched any more after the return. `length` is the front-end's
 * choice: bytes that are left over have to be kept for the next call. It is greater than 0, but for a process
 * of 64 bits that was asked for 2 GiB or more: then it is negative, and has to be refused.
 *
 * Returns non-zero when all `length` bytes are there, otherwise 0; the front-end then gets none of them.
 */
TARVIK_EXPORT int interpreter_reader(void* buffer, int length);

/*
 * Takes `length` bytes that the front-end sent. The buffer is the process's, to be read only, and not to be
 * touched any more after the return. `length` is greater than 0; where a command ends and the next begins is
 * between the front-end and the plugin.
 *
 * Returns non-zero when all of them were accepted, otherwise 0.
 */
TARVIK_EXPORT int interpreter_writer(void* buffer, int length);

#ifdef __cplusplus
}
#endif

#endif
