// The line to the server, which comes back by itself.

/// Calls `take.text(message)` and `take.picture(facts, bytes)`; `take.open()` whenever the line is
/// new, `take.closed(hasEverOpened)` while there is none.
export class Connection {
  constructor(take) {
    this.take = take;
    this.hasOpened = false;
    this.pause = 250;
    this.connect();
    setInterval(() => this.send({ here: true }), 20000);
  }

  connect() {
    const link = new URL('socket', location.href);
    link.protocol = link.protocol.replace('http', 'ws');
    link.hash = '';
    this.socket = new WebSocket(link);
    this.socket.binaryType = 'arraybuffer';
    this.socket.onopen = () => {
      this.hasOpened = true;
      this.pause = 250;
      this.take.open();
    };
    this.socket.onmessage = ({ data }) => {
      if (typeof data === 'string')
        this.take.text(JSON.parse(data));
      else
        this.takePicture(data);
    };
    this.socket.onclose = () => {
      this.take.closed(this.hasOpened);
      setTimeout(() => this.connect(), this.pause);
      this.pause = Math.min(this.pause * 2, 4000);
    };
  }

  takePicture(data) {
    const length = new DataView(data).getUint32(0, true);
    const facts = JSON.parse(new TextDecoder().decode(new Uint8Array(data, 4, length)));
    this.take.picture(facts, new Uint8Array(data, 4 + length));
  }

  get isOpen() { return this.socket.readyState === WebSocket.OPEN; }
  /// Whether what was sent before is on its way: cameras are sent no faster than the line takes.
  get isFree() { return this.isOpen && this.socket.bufferedAmount < 4096; }

  send(message) {
    if (this.isOpen)
      this.socket.send(JSON.stringify(message));
  }
}
