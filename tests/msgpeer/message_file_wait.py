"""Waking readers by datagrams, and a reader's wait for one."""

import errno
import os
import select
import socket

import message_file_codes as codes
from message_file_area import get_common, release_common, update_users
from message_file_layout import WAIT_LIST

READ_WAIT = 2
READ_LIMIT = 4
READ_SIGNAL = 8

# A descriptor that becomes readable when a signal arrives; select looks at it
# because Python itself never ends a select for a signal.
signal_descriptor = None


def signal_readers(h, kind):
    message = b"m" + kind + b"\0\x08" + h.common["file_stamp"]
    for slot in range(h.common["max_readers"]):
        if h.common.get_bit(WAIT_LIST, slot):
            r = udp_send(h, h.common["signal_addr"], h.common.signal_port(slot), message)
            if r != 0:
                return r
    return 0


def network_error(h, code, call, error):
    h.net_error_text = f"#{error.errno} on {call}"
    return code


def close_send_socket(h):
    if h.send_socket is not None:
        h.send_socket.close()
        h.send_socket = None


def close_receive_socket(h):
    if h.receive_socket is not None:
        h.receive_socket.close()
        h.receive_socket = None


def net_close(h):
    close_send_socket(h)
    close_receive_socket(h)


def udp_send(h, address, port, message):
    if h.send_socket is None or h.send_port != port:
        close_send_socket(h)
        h.send_port = port
        try:
            h.send_socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        except OSError as error:
            return network_error(h, codes.ESEND, "socket()", error)
    try:
        h.send_socket.sendto(message, (socket.inet_ntoa(address), port))
    except BlockingIOError:
        pass  # the queue is full: the reader is awake
    except OSError as error:
        close_send_socket(h)
        return network_error(h, codes.ESEND, "sendto()", error)
    return 0


def drain_signals():
    try:
        while os.read(signal_descriptor, 4096):
            pass
    except BlockingIOError:
        pass


def udp_recv(h, port, seconds):
    """Bytes received, 0 when the time ran out, or a code."""
    if h.receive_socket is None or h.receive_port != port:
        close_receive_socket(h)
        h.receive_port = port
        try:
            h.receive_socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        except OSError as error:
            return network_error(h, codes.ERECEIVE, "socket()", error)
        try:
            h.receive_socket.bind(("", port))
        except OSError as error:
            close_receive_socket(h)
            if error.errno == errno.EADDRINUSE:
                return codes.EPORTBUSY
            return network_error(h, codes.ERECEIVE, "bind()", error)
        if seconds != 0:
            h.receive_socket.setblocking(False)
    try:
        return len(h.receive_socket.recv(16))
    except OSError as error:
        if error.errno != errno.EAGAIN or seconds == 0:
            return network_error(h, codes.ERECEIVE, "recvfrom()", error)
    watched = [h.receive_socket]
    if signal_descriptor is not None:
        drain_signals()  # those that came before the wait do not end it
        watched.append(signal_descriptor)
    ready = select.select(watched, [], [], seconds if seconds >= 1 else None)[0]
    if h.receive_socket in ready:
        try:
            return len(h.receive_socket.recv(16))
        except OSError as error:
            return network_error(h, codes.ERECEIVE, "recvfrom()", error)
    return codes.EINTERRUPT if ready else 0


GOT_DATAGRAM, TIME_OVER, GOT_SIGNAL = 1, 2, 3


def wait(h, seconds):
    for attempts_left in reversed(range(15)):
        r = udp_recv(h, h.signal_port, seconds)
        if r == codes.EPORTBUSY:
            if attempts_left > 0:
                h.signal_port = h.common.new_signal_port(h.signal_port)
        elif r == codes.EINTERRUPT:
            return GOT_SIGNAL
        elif r < 0:
            return r
        else:
            return GOT_DATAGRAM if r > 0 else TIME_OVER
    return codes.EPORTBUSY


def need_to_wait(common, flags):
    return common["record_count"] == 0 and (common["num_writers"] > 0 or flags & READ_WAIT != 0)


def fread_wait(h, flags, timeout):
    r = update_users(h)
    ready = not need_to_wait(h.common, flags)
    t = 4 if timeout < 1 else min(timeout, 60)
    remaining = timeout
    while r == 0 and not ready:
        h.common.add_waitlist(h.user_id, h.signal_port)
        r = release_common(h)
        if r != 0:
            break
        w = wait(h, t)
        if w < 0:
            r = w
        elif w == GOT_SIGNAL and flags & READ_SIGNAL:
            r = codes.ESIGNAL
        elif w in (TIME_OVER, GOT_SIGNAL):
            if flags & READ_LIMIT:
                remaining -= t
                if remaining >= 1:
                    t = min(remaining, 60)
                else:
                    r = codes.ETIMEOUT
            else:
                t = 60
        if r != 0:
            break
        r = get_common(h)
        if r != 0:
            break
        ready = not need_to_wait(h.common, flags)
        if not ready:
            r = update_users(h)
            ready = not need_to_wait(h.common, flags)
    h.common.remove_waitlist(h.user_id)
    return r
