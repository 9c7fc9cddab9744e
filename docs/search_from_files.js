// A page that is opened as a file may neither start a worker nor fetch a file, but it may load scripts. For such pages this stands in for
// the search's worker: it loads the index, which `./dev docs` writes as a script too, and answers the same messages (search/main.js).
if (location.protocol === "file:") {
  window.Worker = function () {
    const worker = this;
    const documents = {};
    let index;

    function load(name) {
      return new Promise((resolve, reject) => {
        const script = document.createElement("script");
        script.src = `${base_url}/search/${name}`;
        script.onload = resolve;
        script.onerror = reject;
        document.head.appendChild(script);
      });
    }

    async function begin() {
      await load("lunr.js");
      await load("search_index.js");
      lunr.tokenizer.separator = new RegExp(search_index.config.separator);
      index = lunr(function () {
        this.field("title");
        this.field("text");
        this.ref("location");
        for (const each of search_index.docs) {
          this.add(each);
          documents[each.location] = each;
        }
      });
      worker.onmessage({data: {config: search_index.config}});
      worker.onmessage({data: {allowSearch: true}});
    }

    function answer(query) {
      const results = index.search(query).map(({ref}) => ({...documents[ref], summary: documents[ref].text.substring(0, 200)}));
      worker.onmessage({data: {results}});
    }

    this.postMessage = (message) => message.init ? begin() : answer(message.query);
  };
}
