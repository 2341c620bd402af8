"""The rollout's summary: one line per drive, after the play recap."""

import json
import os

from ansible.plugins.callback import CallbackBase

DOCUMENTATION = '''
    name: quenmark_summary
    type: aggregate
    short_description: one line per drive of a firmware rollout
    description:
      - At the end of the run, prints one line per drive that the role quenmark_firmware recorded
        under its set_stats key quenmark, with the host, the device, the model, the serial number,
        the revision before and after, and the result with its reason. A host without a record
        could not be reached, failed before any drive was read, or was never reached because the
        rollout stopped before its batch. The working folders that earlier, interrupted runs left
        on a host follow its drives. With the environment variable QUENMARK_SUMMARY_JSON set to
        a file name, the same records are also written there as one JSON document, for scripts.
    requirements:
      - enabled in callbacks_enabled (ansible.cfg of this folder)
'''


class CallbackModule(CallbackBase):
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = 'aggregate'
    CALLBACK_NAME = 'quenmark_summary'
    CALLBACK_NEEDS_ENABLED = True

    def __init__(self, *args, **kwargs):
        super(CallbackModule, self).__init__(*args, **kwargs)
        self._play_hosts = []

    def v2_playbook_on_play_start(self, play):
        # Every host of the play, not only those of the batch that starts now: the hosts of
        # batches that never ran are listed too.
        try:
            inventory = play.get_variable_manager()._inventory
            hosts = inventory.get_hosts(play.hosts, ignore_restrictions=True)
        except Exception:
            return
        for host in hosts:
            if host.name not in self._play_hosts:
                self._play_hosts.append(host.name)

    def v2_playbook_on_stats(self, stats):
        rows = []
        document = {}
        for host in sorted(set(stats.processed) | set(self._play_hosts)):
            drives = stats.custom.get(host, {}).get('quenmark')
            leftovers = stats.custom.get(host, {}).get('quenmark_leftovers') or []
            if drives is None:
                if stats.dark.get(host):
                    rows.append((host, '-', 'could not be reached; the state of its drives is unknown'))
                elif stats.failures.get(host):
                    rows.append((host, '-', 'failed before any drive was read (see its error above)'))
                elif host not in stats.processed:
                    rows.append((host, '-', 'not tried: the rollout stopped before its batch'))
            elif not drives:
                rows.append((host, '-', 'no candidate drive was found'))
            else:
                rows.extend((host, drive.get('device') or '-', drive.get('summary', '')) for drive in drives)
            rows.extend((host, '-', leftover.get('summary', '')) for leftover in leftovers)
            document[host] = {'drives': drives, 'leftovers': leftovers,
                              'survey_seconds': stats.custom.get(host, {}).get('quenmark_survey_seconds', 0),
                              'state': rows[-1][2] if drives is None and rows and rows[-1][0] == host else ''}
        path = os.environ.get('QUENMARK_SUMMARY_JSON')
        if path:
            with open(path, 'w') as out:
                json.dump(document, out, indent=1)
        if not rows:
            return
        host_width = max(len(row[0]) for row in rows)
        device_width = max(len(row[1]) for row in rows)
        self._display.banner('QUENMARK SUMMARY')
        for host, device, summary in rows:
            self._display.display('%-*s  %-*s  %s' % (host_width, host, device_width, device, summary))
        self._display.display('', screen_only=True)
