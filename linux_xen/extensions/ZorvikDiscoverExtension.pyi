"""What the server's machine is made of, and what state it is in.

Each function returns a tuple of an int status (0 for success), the response text and the log text. A text that was
never written is `None`. A byte that is no UTF-8 comes as a lone surrogate (`surrogateescape`), so no device's or
process's name can turn a report into an exception; under Python 2 the texts are plain `str`.

The log text has a line for each thing that could not be read, `? FUNCTION: what went wrong`, mostly with the errno
value and its text. A call can succeed and still have something to log: what could not be read is left out of the
response. A document can then fail to be well-formed, and the caller has to expect it.

Everything is read afresh on each call and nothing on the host is changed. A call holds the interpreter until it is
through: no other thread runs meanwhile.
"""

from typing import Optional, Tuple

_Answer = Tuple[int, Optional[str], Optional[str]]

def discover_hardware() -> _Answer:
    """The document `Discover_Hardware_Result`, behind an XML declaration; the status is 0.

    Its sections: `VMM`, the hypervisor's topology, memory and feature words; `CPUInfo`, the processors of the control
    domain's kernel, and the virtual ones it could be given; `IPMI`, the management controller's GUID and LAN channels;
    `DMTF`, the SMBIOS table, raw in base 64 and decoded. The marker lines `##STORAGE_DISCOVERY##` and
    `##SERVER_RESERVED##` stand as they are. Without a hypervisor the document ends behind its head.

    It takes milliseconds as a rule, and a second for each request that the management controller does not answer.
    """

def discover_network(indent: int, /) -> _Answer:
    """The elements `Network`, `Bonding`, `Bridges` and `Infiniband`, `indent` blanks deep; the status is 0.

    They stand side by side, without a root element or an XML declaration. `Network` has a `Device` for each physical
    card, VLAN, VXLAN and virtual-NIC device, sorted by name; `Bonding` the bonds with their slaves, `Bridges` the
    bridges with their ports, `Infiniband` the InfiniBand ports.

    It takes milliseconds as a rule, and up to 6 seconds where the Open vSwitch tool hangs.
    """

def status(command: str, /) -> _Answer:
    """A status line, and behind it the document `Status` with the sections that the command selects.

    The command is made of clauses, `Option: NAME`, in any letter case; a clause may run several names together, in the
    order of the sections below. An empty command selects all sections of `All` but the processes.

    The status is 0; or 22 (`EINVAL`) for a rejected command, of which the response has a status line of code 400 alone,
    and for an unknown name the names there are; or 12 (`ENOMEM`) without memory.

    It takes some 15 microseconds for each process with `Processes`, and up to 6 seconds with `Bridge_Config` where the
    Open vSwitch tool hangs; milliseconds otherwise.
    """

def unique_id() -> _Answer:
    """The machine's identifier, 16 bytes as hex pairs joined by colons; the status is 0, or 1 when there is none.

    It is the SMBIOS system UUID in network byte order. Where the firmware has no usable one, it is the hardware
    addresses of the physical network cards in the order of their names, cut or filled with `ff` to 16 bytes.

    It takes milliseconds.
    """
