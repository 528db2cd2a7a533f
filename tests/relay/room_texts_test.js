// What participants write, as web/janus.js reads it: the rows that the relay engine is tested with, too.
const assert = require('node:assert/strict');
const {readFileSync} = require('node:fs');
const path = require('node:path');

const read = (name) => readFileSync(path.join(__dirname, name), 'utf8');

async function main() {
  // By its text: to a node that is asked for a file of this name it would not be a module.
  const source = encodeURIComponent(read('../../web/janus.js'));
  const {parseCaption, readDisplay, writeCaption} = await import(`data:text/javascript,${source}`);
  const {captions, displays} = JSON.parse(read('room_texts.json'));
  for (const {message, text, final = true, ours, times = 1} of captions) {
    const wanted = text === undefined ? null : {text: text.repeat(times), final};
    assert.deepEqual(parseCaption(message.repeat(times)), wanted, message);
    if (ours) assert.deepEqual(JSON.parse(writeCaption(text, final)), JSON.parse(message));
  }
  for (const {display, name, owner = '', times = 1} of displays) {
    assert.deepEqual(readDisplay(display.repeat(times), '12345'), {name, owner}, display);
  }
}

main();
