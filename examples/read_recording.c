/* read_recording.c: what stands in a file of `velmora record`, read by EDFlib as any other EDF+ file is.
 * Debian: apt install libedf-dev; cc read_recording.c -o read_recording -ledf
 * Usage: read_recording FILE.edf */
#include <edflib.h>
#include <stdio.h>
#include <stdlib.h>

/* Lost samples have this value, and an annotation whose text begins with BAD_ says where they are. */
static const int lost = -32768;

static void showSignal(const struct edf_hdr_struct* header, int signal) {
    const struct edf_param_struct* const about = &header->signalparam[signal];
    const int count = (int)about->smp_in_file;
    int* const samples = malloc(sizeof *samples * (size_t)(count > 0 ? count : 1));
    const int got = samples == NULL ? -1 : edfread_digital_samples(header->handle, signal, count, samples);
    const double unit = (about->phys_max - about->phys_min) / (about->dig_max - about->dig_min);
    double sum = 0;
    int present = 0;
    for (int i = 0; i < got; i++) {
        if (samples[i] != lost) {
            sum += unit * samples[i];
            present++;
        }
    }
    free(samples);
    printf("%s %d samples, %d of them lost, mean %.2f %s\n", about->label, got, got - present,
           present > 0 ? sum / present : 0, about->physdimension);
}

int main(int argc, char** argv) {
    static struct edf_hdr_struct header;
    if (argc != 2 || edfopen_file_readonly(argv[1], &header, EDFLIB_READ_ALL_ANNOTATIONS) != 0) {
        fprintf(stderr, "usage: read_recording FILE.edf, which EDFlib can read\n");
        return 2;
    }
    printf("%04d-%02d-%02d %02d:%02d:%02d, %.3f seconds\n", header.startdate_year, header.startdate_month,
           header.startdate_day, header.starttime_hour, header.starttime_minute, header.starttime_second,
           (double)header.file_duration / EDFLIB_TIME_DIMENSION);
    for (int signal = 0; signal < header.edfsignals; signal++) {
        showSignal(&header, signal);
    }
    for (int i = 0; i < header.annotations_in_file; i++) {
        struct edf_annotation_struct annotation;
        if (edf_get_annotation(header.handle, i, &annotation) == 0) {
            printf("at %.3f s: %s\n", (double)annotation.onset / EDFLIB_TIME_DIMENSION, annotation.annotation);
        }
    }
    edfclose_file(header.handle);
    return 0;
}
