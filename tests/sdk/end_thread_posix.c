/* Callbacks of a C host that end the thread they run on. */
#include <pthread.h>

void end_thread_on_raw(int device, int channel, int* samples, int count);
void end_thread_on_event(unsigned int code, unsigned int value);

/* The event that ends the thread. */
unsigned int ending_event = 0;

void end_thread_on_raw(int device, int channel, int* samples, int count) {
    (void)device;
    (void)channel;
    (void)samples;
    (void)count;
    pthread_exit(0);
}

void end_thread_on_event(unsigned int code, unsigned int value) {
    (void)value;
    if (code == ending_event) {
        pthread_exit(0);
    }
}
