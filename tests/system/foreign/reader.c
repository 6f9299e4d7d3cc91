/* Reads an exported stream with Cyclone DDS alone, from the IDL file: what any program of another
   make may do. Payloads go to standard output.
     foreign-reader TOPIC COUNT */
#include "kvo_sample.h"

#include <dds/dds.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static dds_entity_t checked(dds_entity_t entity, const char *what) {
    if (entity < 0) {
        fprintf(stderr, "%s: %s\n", what, dds_strretcode(entity));
        exit(1);
    }
    return entity;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: foreign-reader TOPIC COUNT\n");
        return 2;
    }
    const dds_entity_t participant =
        checked(dds_create_participant(DDS_DOMAIN_DEFAULT, NULL, NULL), "participant");
    const dds_entity_t topic = checked(
        dds_create_topic(participant, &kvo_remote_Sample_desc, argv[1], NULL, NULL), "topic");
    dds_qos_t *qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    const dds_entity_t reader =
        checked(dds_create_reader(participant, topic, qos, NULL), "reader");
    dds_delete_qos(qos);
    const dds_entity_t waitset = checked(dds_create_waitset(participant), "waitset");
    const dds_entity_t data = checked(dds_create_readcondition(reader, DDS_ANY_STATE), "condition");
    checked(dds_waitset_attach(waitset, data, 0), "waitset");

    uint64_t next = 0;
    for (long left = strtol(argv[2], NULL, 10); left > 0;) {
        void *samples[1] = {NULL};
        dds_sample_info_t info;
        dds_waitset_wait(waitset, NULL, 0, DDS_SECS(1));
        while (left > 0 && dds_take(reader, samples, &info, 1, 1) == 1) {
            const kvo_remote_Sample *sample = samples[0];
            if (info.valid_data) {
                if (next != 0 && sample->sequence_number != next) {
                    fprintf(stderr, "number %llu instead of %llu\n",
                            (unsigned long long)sample->sequence_number, (unsigned long long)next);
                    return 1;
                }
                next = sample->sequence_number + 1;
                fwrite(sample->payload._buffer, 1, sample->payload._length, stdout);
                --left;
            }
            dds_return_loan(reader, samples, 1);
        }
    }
    dds_delete(participant);
    return 0;
}
