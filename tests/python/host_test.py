"""The Python package on the simulated host of host.json, under which this file is run."""

import errno
import os
import pickle
import unittest
from concurrent.futures import ThreadPoolExecutor

import trelm
from trelm import _c

INQUIRY = (0x12, 0, 0, 0, 36, 0)


class HostTest(unittest.TestCase):
    def setUp(self) -> None:
        self.host = trelm.load()
        self.addCleanup(self.host.close)
        self.port, self.broken = self.host.ports

    def test_ports_and_virtual_ports(self) -> None:
        adapter, info = self.port.adapter(), self.port.info()
        self.assertEqual(adapter.model, "Ulvard 8042\\x1b[31m")
        self.assertEqual((adapter.pci_address, adapter.management_firmware), ("0001:3b:02.0", "08.37.30.00"))
        self.assertEqual((adapter.pcie_gigatransfers, adapter.pcie_lanes, adapter.device_id), (8.0, 8, 0x8080))
        self.assertEqual((info.npiv_index, info.hba_name, info.port_id), (3, "vmhba7", 0x010200))
        self.assertEqual((info.state, info.state.words), (trelm.PortState.ONLINE, "online"))
        self.assertEqual(trelm.speed_words(info.supported_speeds | 0x8000), "1, 10 Gbit/s, unknown (0x8000)")
        assert info.fcf is not None
        self.assertEqual((info.fcf.mac, info.fcf.fc_map), ("00:c0:5a:0f:00:01", 0x0EFC00))
        (virtual,) = self.port.virtual_ports()
        self.assertEqual((virtual.label, virtual.info().is_virtual), ("0/1", True))
        self.assertEqual(virtual.info().parent_wwpn, info.wwpn)
        self.assertEqual(self.broken.info().state.words, "link down")
        self.assertIsNone(self.broken.info().fcf)

    def test_lists_of_any_length(self) -> None:
        targets = self.port.targets()
        self.assertEqual([(t.number, t.lun_count) for t in targets], [(0, 41), (5, 2), (9, 0)])
        self.assertEqual((targets[1].state, targets[1].state.words), (77, "unknown (0x4d)"))
        self.assertEqual((targets[0].port_id, targets[0].wwpn), (0x010600, "50:00:00:c0:5a:00:00:11"))
        luns = self.port.luns(0)
        self.assertEqual([lun.number_text for lun in luns], [str(n) for n in range(40)] + ["0x412c"])
        self.assertEqual((luns[40].capacity_text, luns[40].device_type_words), ("3 TiB", "disk"))
        self.assertEqual((self.port.virtual_ports()[0].targets(), self.port.luns(9)), ((), ()))

    def test_listings_that_fail_keep_what_was_found(self) -> None:
        with self.assertRaises(trelm.Error) as luns:
            self.broken.luns(0)
        self.assertEqual(luns.exception.code, trelm.DEVICE_OFFLINE)
        self.assertEqual([lun.number for lun in luns.exception.found], [0, 1])
        with self.assertRaises(trelm.Error) as targets:
            self.broken.targets()
        self.assertEqual(targets.exception.name, "TRELM_STATUS_INSUFFICIENT_BUFFER")  # the driver's 9
        self.assertEqual([target.number for target in targets.exception.found], [0])

    def test_statistics(self) -> None:
        stats = self.port.statistics()
        self.assertEqual((stats.rx_fcoe_frames, stats.link_failures), (5, 2**64 - 1))
        earlier = trelm.Statistics(*range(2, 32))
        self.assertEqual(stats.since(earlier).rx_fcoe_frames, 3)
        self.assertEqual(earlier.since(stats).link_failures, 31)  # cleared in between

    def test_commands_move_data_both_ways(self) -> None:
        self.assertEqual(self.port.command(5, 0, INQUIRY, data_in=36).data[8:15], b"CALVEXA")
        block = bytes(range(256)) * 2
        self.port.command(5, 0, (0x2A, 0, 0, 0, 0, 7, 0, 0, 1, 0), data_out=block)
        self.assertEqual(self.port.command(5, 0, (0x28, 0, 0, 0, 0, 7, 0, 0, 1, 0), data_in=512).data, block)
        with self.assertRaises(trelm.CheckCondition) as refused:
            self.port.command(5, 1, (0,) * 6)
        self.assertIn("not ready: logical unit not ready, manual intervention required (02/04/03)", str(refused.exception))
        self.assertEqual(pickle.loads(pickle.dumps(refused.exception)).sense, refused.exception.sense)
        unchecked = self.port.command(5, 1, (0,) * 6, check=False)
        self.assertEqual(unchecked.sense, refused.exception.sense)
        for arguments in ((5, 0, ()), (5, 0, (0,) * 17), (128, 0, (0,) * 6), (0, 1 << 64, (0,) * 6)):
            self.assertRaises(ValueError, self.port.command, *arguments)
        self.assertRaises(ValueError, self.port.command, 5, 0, INQUIRY, data_in=1, data_out=b"1")
        with self.assertRaises(trelm.Error) as too_long:
            self.port.command(5, 0, INQUIRY, data_in=_c.SCSI_MAX_NATIVE_DATA + 1)
        self.assertIn("at most 262144 bytes", too_long.exception.advice)

    def test_errors_explain_themselves(self) -> None:
        with self.assertRaises(trelm.Error) as failed:
            self.broken.statistics()
        self.assertEqual(
            str(failed.exception),
            "port 1: TRELM_GetPortStats failed with 0x6000000C (DRIVER_STATUS_12): the driver failed with its "
            "status 12; run again with TRELM_API_DEBUG=4 to see what failed inside the library",
        )
        node = trelm.Error(errno.ENOENT, "TRELM_OpenAdapter", "0")
        self.assertEqual((node.name, node.meaning), ("ENOENT", "No such file or directory"))
        self.assertIn("status 7", trelm.Error(0x60000007, "TRELM_GetPortStats").meaning)
        self.assertRaises(OSError, trelm.load, "/nowhere/libtrelm.so")

    def test_hosts_share_a_load_and_a_child_has_its_own(self) -> None:
        with trelm.load() as second:
            self.port.info()
            second.ports[0].info()
        self.assertRaises(ValueError, second.ports[0].info)
        child = os.fork()
        if child == 0:
            with trelm.load() as own:
                os._exit(0 if own.ports[0].info() == self.port.info() else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.assertTrue(self.port.targets())
        self.host.close()
        self.host.close()
        self.assertRaises(ValueError, self.port.adapter)

    def test_threads_share_hosts_and_load_their_own(self) -> None:
        shared = self.port

        def work(_: int) -> bool:
            with trelm.load() as own:
                port, (virtual,) = own.ports[0], shared.virtual_ports()
                return (
                    (shared.targets(), port.luns(5)) == expected
                    and virtual.info().is_virtual
                    and shared.command(5, 0, INQUIRY, data_in=36).data == inquiry
                    and port.statistics().rx_fcoe_frames == 5
                )

        expected, inquiry = (shared.targets(), shared.luns(5)), shared.command(5, 0, INQUIRY, data_in=36).data
        with ThreadPoolExecutor(8) as pool:
            self.assertEqual(list(pool.map(work, range(64))), [True] * 64)


class SenseTest(unittest.TestCase):
    def test_both_formats(self) -> None:
        fixed = "f00003000012340a000000001100" + 20 * "00"
        descriptors = "72030b010000001c 0206000080000000 000a8000 0000000000123400 020a 0000" + 20 * "00"
        for data, *expected in (
            (fixed, "medium error: unrecovered read error (03/11/00)", 0x1234, 18, True),
            (descriptors, "medium error: additional sense 0bh/01h (03/0b/01)", 0x123400, 36, True),
            ("7100040000000000", "hardware error: no additional sense information (04/00/00), of an earlier command", None, 8, False),
        ):
            sense = trelm.decode_sense(bytes.fromhex(data))
            assert sense is not None
            self.assertEqual([sense.words, sense.information, len(sense.raw), sense.is_failure], expected)
        for none in (b"", b"\x70" * 7, bytes(18), b"\x7f" + bytes(17)):
            self.assertIsNone(trelm.decode_sense(none))


if __name__ == "__main__":
    unittest.main()
